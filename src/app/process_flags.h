#pragma once

#include <atomic>

namespace ox {

/// Set by SIGINT, SIGTERM and SIGHUP: the agent is to stop.
std::atomic<bool>& shutdown_flag();
/// Set by SIGUSR1 and the panic channel: every session is to end, until the agent is restarted.
std::atomic<bool>& panic_flag();
/// The last signal that stops the agent; 0: none.
extern std::atomic<int> g_last_signal;

/// Signal handlers; they only store into atomics.
void on_sigint(int signal);
void on_sigusr1(int signal);

/// Installs `handler`, without restarting blocking calls, and unblocks `signal`.
void install_signal_handler(int signal, void (*handler)(int));
bool is_ignored(int signal);
/// A write to a closed pipe or socket then fails instead of ending the process.
void ignore_sigpipe();
/// To the default, as an inherited "ignored" frees a child's id before it is waited for.
void reset_sigchld();

}  // namespace ox

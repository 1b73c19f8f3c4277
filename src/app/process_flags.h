#pragma once

#include <atomic>

namespace ox {

/// Set by SIGINT, SIGTERM and SIGHUP: the whole agent is to stop.
std::atomic<bool>& shutdown_flag();
/// Set by SIGUSR1 and the panic channel: every session is to end, until the agent is restarted.
std::atomic<bool>& panic_flag();
/// Number of the last of these signals, 0 before the first.
extern std::atomic<int> g_last_signal;

/// Handlers; they only store into atomics.
void on_sigint(int signal);
void on_sigusr1(int signal);

/// Installs `handler` for `signal`. Blocking calls are interrupted and not restarted.
void install_signal_handler(int signal, void (*handler)(int));
/// Whether the process takes no notice of `signal`.
bool is_ignored(int signal);
/// A write to a closed pipe or socket is to fail, not to kill.
void ignore_sigpipe();
/// A child that has ended keeps its id until it is waited for, also where SIGCHLD was inherited as
/// ignored: a signal meant for it must not meet another process.
void keep_ended_children();

}  // namespace ox

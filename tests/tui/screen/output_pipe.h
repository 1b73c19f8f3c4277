#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <string>

#include "base/unique_fd.h"

namespace ox::test {

/// A pipe whose reading end never waits, for looking at what was written so far.
class OutputPipe {
  public:
    OutputPipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        reader.reset(ends[0]);
        writer.reset(ends[1]);
        ::fcntl(reader.get(), F_SETFL, O_NONBLOCK);
    }

    /// Puts newlines into the pipe until it takes no more.
    void fill() const {
        const UniqueFd other(::open(("/proc/self/fd/" + std::to_string(writer.get())).c_str(),
                                    O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        while (::write(other.get(), "\n", 1) == 1) {
        }
    }

    /// Everything that is in the pipe, without what `fill` put there.
    [[nodiscard]] std::string read_all() const {
        std::string text;
        std::array<char, 4096> buffer;
        for (ssize_t n = 0; (n = ::read(reader.get(), buffer.data(), buffer.size())) > 0;) {
            text.append(buffer.data(), static_cast<size_t>(n));
        }
        text.erase(0, text.find_first_not_of('\n'));
        return text;
    }

    UniqueFd reader;
    UniqueFd writer;
};

}  // namespace ox::test

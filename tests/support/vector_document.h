#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <iomanip>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace ox::test {

/// The test vectors of a document: its fenced blocks that have a name (```hex NAME, ```json NAME,
/// ```http NAME), and which of them were asked for.
class VectorDocument {
  public:
    explicit VectorDocument(const std::string& path) {
        std::ifstream file(path);
        std::vector<std::string>* block = nullptr;
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with("```hex ") || line.starts_with("```json ") ||
                line.starts_with("```http ")) {
                block = &blocks_[line.substr(line.find(' ') + 1)];
            } else if (line.starts_with("```")) {
                block = nullptr;
            } else if (block != nullptr) {
                block->push_back(line);
            }
        }
    }

    /// The lines of a block, each with `line_end` behind it. Throws when there is no such block.
    std::string block(const std::string& name, const std::string& line_end) {
        used_.insert(name);
        std::string joined;
        for (const std::string& line : blocks_.at(name))
            joined += line + line_end;
        return joined;
    }
    /// A block's lines as one.
    std::string line(const std::string& name) { return block(name, ""); }

    /// The bytes of a block of hexadecimal numbers.
    std::vector<uint8_t> hex(const std::string& name) {
        std::istringstream text(line(name));
        std::vector<uint8_t> bytes;
        for (std::string digits; text >> std::setw(2) >> digits;)
            bytes.push_back(static_cast<uint8_t>(std::stoi(digits, nullptr, 16)));
        return bytes;
    }

    void expect_all_used() const {
        for (const auto& [name, lines] : blocks_)
            EXPECT_TRUE(used_.contains(name)) << name;
    }

  private:
    std::map<std::string, std::vector<std::string>> blocks_;
    std::set<std::string> used_;
};

}  // namespace ox::test

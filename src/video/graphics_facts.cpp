#include "video/graphics_facts.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <system_error>

namespace ox {
namespace {

namespace fs = std::filesystem;

uint32_t vendor_of(const fs::path& card) {
    std::ifstream file(card / "device/vendor");
    uint32_t vendor = 0;
    file >> std::hex >> vendor;
    return file ? vendor : 0;
}

std::string text_of(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

GraphicsFacts read_graphics_facts(const fs::path& root) {
    GraphicsFacts facts;
    std::error_code error;
    facts.nvidia_driver = fs::exists(root / "proc/driver/nvidia", error);
    facts.distribution = distribution_of(text_of(root / "etc/os-release"));
    for (fs::directory_iterator entry(root / "dev/dri", error), end; !error && entry != end;
         entry.increment(error)) {
        const fs::path& node = entry->path();
        if (!node.filename().string().starts_with("renderD")) continue;
        facts.nodes.push_back({.path = node.string(),
                               .permitted = ::access(node.c_str(), R_OK | W_OK) == 0,
                               .vendor = vendor_of(root / "sys/class/drm" / node.filename())});
    }
    // The kernel numbers them from 128 to 191: by name is by number.
    std::ranges::sort(facts.nodes, {}, &RenderNode::path);
    return facts;
}

}  // namespace ox

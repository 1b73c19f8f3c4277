#include "video/graphics_facts.h"

#include <unistd.h>

#include <fstream>
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

}  // namespace

GraphicsFacts read_graphics_facts(const fs::path& root) {
    GraphicsFacts facts;
    std::error_code error;
    facts.nvidia_driver = fs::exists(root / "proc/driver/nvidia", error);
    for (fs::directory_iterator entry(root / "dev/dri", error), end; !error && entry != end;
         entry.increment(error)) {
        const fs::path& node = entry->path();
        if (!node.filename().string().starts_with("renderD")) continue;
        const bool usable = ::access(node.c_str(), R_OK | W_OK) == 0;
        if (facts.node != GraphicsFacts::Node::Missing && !usable) continue;
        facts.node = usable ? GraphicsFacts::Node::Usable : GraphicsFacts::Node::Forbidden;
        facts.node_path = node.string();
        facts.vendor = vendor_of(root / "sys/class/drm" / node.filename());
        if (usable) break;
    }
    return facts;
}

}  // namespace ox

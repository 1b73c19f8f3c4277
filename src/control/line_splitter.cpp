#include "control/line_splitter.h"

namespace ox {

LineSplitter::LineSplitter(size_t longest) : longest_(longest) {
    kept_.reserve(longest);
}

void LineSplitter::keep(std::string_view part) {
    length_ += part.size();
    if (length_ <= longest_) {
        kept_ += part;
    } else {
        kept_.clear();
    }
}

void LineSplitter::feed(std::string_view bytes, const std::function<void(const Line&)>& on_line) {
    for (size_t end = bytes.find('\n'); end != std::string_view::npos; end = bytes.find('\n')) {
        keep(bytes.substr(0, end));
        bytes.remove_prefix(end + 1);
        on_line(Line{.text = kept_, .length = length_});
        kept_.clear();
        length_ = 0;
    }
    keep(bytes);
}

}  // namespace ox

// Text from outside that is shown on the screen.

#include "base/text.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    namespace text = ox::text;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    const int columns = data[0] % 100;
    const std::string clean = text::sanitize(bytes);
    for (const char c : clean)
        OX_FUZZ_REQUIRE(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F);
    for (const std::string_view any : {bytes, std::string_view(clean)}) {
        OX_FUZZ_REQUIRE(text::width(text::clip(any, columns)) <= columns);
        OX_FUZZ_REQUIRE(text::width(text::clip_left(any, columns)) <= columns);
    }
    if (columns >= 2) {
        for (const std::string& line : text::wrap(clean, columns))
            OX_FUZZ_REQUIRE(text::width(line) <= columns);
    }
    return 0;
}

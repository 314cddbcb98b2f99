// Text put into XML (the checker's JUnit report, the plot's SVG).
#pragma once

#include <string>
#include <string_view>

// `text` escaped for an XML attribute value (a line end as a character
// reference) or, with attribute false, for element content. A control byte
// other than tab and line end cannot be in XML 1.0 at all: it becomes '?'.
inline std::string xml_text(std::string_view text, bool attribute = true) {
    std::string out;
    for (char ch : text) {
        switch (ch) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\n': out += attribute ? "&#10;" : "\n"; break;
            default: out += static_cast<unsigned char>(ch) < 0x20 && ch != '\t' ? '?' : ch;
        }
    }
    return out;
}

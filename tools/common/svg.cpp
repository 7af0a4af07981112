// svg.cpp - composing elements.
#include "tools/common/svg.h"

#include "tools/common/json_reader.h"
#include "tools/common/text.h"

namespace olvex_tools {

std::string xml_text(const std::string& text) {
  std::string result;
  for (const char letter : one_line(valid_utf8(text))) {
    switch (letter) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      default:
        result += letter;
    }
  }
  return result;
}

std::string svg_element(const std::string& name, const std::string& attributes,
                        const std::string& content) {
  const std::string start = "<" + name + (attributes.empty() ? "" : " ") + attributes;
  return content.empty() ? start + "/>\n" : start + ">" + content + "</" + name + ">\n";
}

std::string svg_document(double width, double height, int font_size, const std::string& content) {
  return format(
             "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %.0f %.0f\" width=\"%.0f\" "
             "height=\"%.0f\" font-family=\"sans-serif\" font-size=\"%d\" fill=\"#202020\">\n"
             "<rect width=\"100%%\" height=\"100%%\" fill=\"#ffffff\"/>\n",
             width, height, width, height, font_size) +
         content + "</svg>\n";
}

}  // namespace olvex_tools

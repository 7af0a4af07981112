// svg.h - the elements of SVG pictures as text. coco_plot.cpp and mot_timeline.cpp draw with them.
#ifndef TOOLS_COMMON_SVG_H
#define TOOLS_COMMON_SVG_H

#include <string>

namespace olvex_tools {

// A text of any bytes as XML holds it.
std::string xml_text(const std::string& text);

// <name attributes>content</name> on its own line. content is XML.
std::string svg_element(const std::string& name, const std::string& attributes,
                        const std::string& content = "");

// A whole picture on white ground; sizes in pixels.
std::string svg_document(double width, double height, int font_size, const std::string& content);

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_SVG_H

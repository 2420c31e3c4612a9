// Text for XML and SVG documents: the characters that would end a text node or an attribute,
// as entities.
#pragma once

#include <string>
#include <string_view>

namespace kelvo {

std::string xmlText(std::string_view text);

}  // namespace kelvo

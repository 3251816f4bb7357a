// Lists of changed ranges in XML.
#pragma once

#include <string>
#include <string_view>

#include "lists/RangeList.h"

namespace kelvane::tool {

inline bool isXml(ListFormat format)
{
    return format == ListFormat::Thin || format == ListFormat::Era;
}

// By its root, when the options name no format. Memory is bounded whatever the text is: no document types, and so no
// entities of its own, no elements that the two formats do not have, and no tag without end.
RangeList parseXmlList(std::string_view text, const std::string& source, const ListOptions& options);

} // namespace kelvane::tool

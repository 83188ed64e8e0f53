// The sources of the status page as they stand in this folder; the build writes PageSources.cpp.
#pragma once

#include <string_view>

namespace host::page_sources {

extern const std::string_view html;  // with the two marks that style and script take the place of
extern const std::string_view css;
extern const std::string_view js;

}  // namespace host::page_sources

// Packs an export folder into one file next to it, "<folder>.kelvocapture": a zip archive whose
// entries sit under the folder's name, so unpacking it gives the folder back.
#pragma once

#include <string>

#include "foundation/core/ProfilingTypes.h"

namespace kelvo::ProfileExportBundler {

inline constexpr const char* kBundleExtension = ".kelvocapture";

// Never leaves a partial bundle behind: the archive is written under a temporary name and only
// renamed into place once it is complete.
ProfilingResult<std::string> createBundle(const std::string& folder);

}  // namespace kelvo::ProfileExportBundler

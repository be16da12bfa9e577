// Wine runs this build on Linux much as Windows would; the few places where
// it differs ask here.
#pragma once

namespace NORVA::Platform {

// True under Wine, whose ntdll exports wine_get_version.
bool runningUnderWine();

}  // namespace NORVA::Platform

#pragma once

namespace qlapi {
// The library's version text (QVersion, the Hello exchange). Never contains '%'.
inline constexpr const char kLibraryVersion[] = "libqlapi 4.10.0.0";
}  // namespace qlapi

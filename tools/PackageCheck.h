#pragma once

// Why kovex-pack cannot use a file: the engine's mount says only yes or no,
// so the tool looks at the bytes itself to name the cause.

#include <cstdint>
#include <string>

namespace KovexTools {

// The first thing wrong with `path` as a package, as a phrase that follows
// the file's name ("is not a package: ..."); empty when nothing is found.
std::string DiagnosePackage(const std::string& path, bool forWriting);

// Why a deflated member cannot be inflated: zlib's own message; empty when
// it inflates.
std::string DiagnoseMemberData(const std::string& packagePath, uint64_t offset, uint64_t compressedSize,
                               uint64_t size);

} // namespace KovexTools

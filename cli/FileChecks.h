// The download files read through before anything goes to a gateway: a file the loader
// would take wrongly, or only in part, is refused with its name, line and reason
// (UsageError "fw.hex:3: ..."), instead of failing half-way through a download.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tamrik::cli {

// A firmware line file: records ":" + count, address (2), type, data, check byte, in
// upper-case hexadecimal digit pairs, one a line; lines without ':' are skipped as the
// driver skips them. Returns each record's size on the line in bytes (':' included).
std::vector<size_t> CheckLineFile(const std::string& path);

// A loader stage file: one run of hexadecimal digits, white space only after it, at most
// capacity bytes (the loader's buffer for the stage). stage names it in messages ("BSL").
void CheckStageFile(const std::string& path, const std::string& stage, size_t capacity);

// The four files of a boot chain; setCtx may be empty or "-" for none.
void CheckBootFiles(const std::string& bsl, const std::string& setCtx, const std::string& boot,
                    const std::string& firmware);

// A boot-file list (kaVBoot.ini): the four names of its section BSL-Files, in the order
// BSL_File, SetCtx_File, Boot_File, Boot_Firmware; a missing key gives an empty name.
std::vector<std::string> ReadBootList(const std::string& path);

// The whole file; UsageError "cannot read FILE" when it cannot be read.
std::string ReadWholeFile(const std::string& path);

}  // namespace tamrik::cli

// What kelvoctl prints carries words from the command line, the settings file, Kelvo's event
// table and the helper. None of them may steer the terminal: control characters are written
// out ("\x1b", "\u009b") instead of being sent.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace kelvo::kelvoctl {

// `text` with every C0 control but tab and newline, DEL, every C1 control and every byte that
// is not UTF-8 written out as an escape; everything else as it is.
std::string terminalSafe(std::string_view text);

// printf to `stream`, made terminal-safe as a whole.
void say(std::FILE* stream, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace kelvo::kelvoctl

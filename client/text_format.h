// SPDX-License-Identifier: Apache-2.0
//
// Values as text for people. Pure; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Tesu::Bpf {

// Text that is safe on a terminal: valid UTF-8 is kept, every other byte and every character that
// would act on the terminal (control characters, direction marks) becomes \xHH per byte. A
// backslash is doubled, so that the result is unambiguous.
std::string EscapeForTerminal(std::string_view text);

// Adds blanks up to `width` characters (not bytes); longer text is left alone.
std::string PadRight(std::string text, size_t width);

// "512 B", "4.0 KiB", "12.3 MiB", "-1.0 GiB".
std::string FormatBytes(int64_t bytes);

// A change of a size: the same, with "+" before what is not negative.
std::string FormatSignedBytes(int64_t bytes);

// A duration of nanoseconds with the unit that suits it: "830 us", "3.2 ms", "1.25 s", "2 h 05 m".
std::string FormatDuration(int64_t nanoseconds);

}  // namespace Tesu::Bpf

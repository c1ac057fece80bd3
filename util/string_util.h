// SPDX-License-Identifier: Apache-2.0
//
// Text helpers without state; any thread.
#pragma once

#include <string>
#include <vector>

#include "util/export.h"

namespace Tesu::Bpf {

// Whether the text is one or more of '0' to '9' and nothing else.
TESU_API bool IsDigits(const std::string& text);

// Each byte as two lowercase hexadecimal digits and a blank.
TESU_API std::string ConvertToHexString(const char* bytes, int count);

// printf into a string of any length; empty on a formatting error.
TESU_API std::string StringPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The non-empty pieces between separators. An empty separator separates nothing.
TESU_API std::vector<std::string> Split(const std::string& text, const std::string& separator);

}  // namespace Tesu::Bpf

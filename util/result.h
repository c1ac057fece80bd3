// SPDX-License-Identifier: Apache-2.0
//
// The result of a function that can fail with a text for people: a value, or why there is none.
#pragma once

#include <android-base/expected.h>

#include <string>
#include <utility>

namespace Tesu::Bpf {

// `if (result) use(*result); else print(result.error());`
template <class T = void>
using Result = android::base::expected<T, std::string>;

// What a failing function returns.
inline android::base::unexpected<std::string> Failure(std::string reason) {
    return android::base::unexpected<std::string>(std::move(reason));
}

}  // namespace Tesu::Bpf

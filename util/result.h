// SPDX-License-Identifier: Apache-2.0
//
// The result of a function that can fail with a text for people: a value, or why there is none.
#pragma once

#include <android-base/expected.h>

#include <cerrno>
#include <cstring>
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

// The same where the system refused something about `what`: errno says why.
inline android::base::unexpected<std::string> SystemFailure(const std::string& what) {
    return Failure(what + ": " + strerror(errno));
}

}  // namespace Tesu::Bpf

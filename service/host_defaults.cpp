// SPDX-License-Identifier: Apache-2.0
#include "service/host_defaults.h"

#include <android-base/parseint.h>
#include <android-base/properties.h>

#include <string>

#include "records/contract.h"
#include "util/log.h"

namespace Tesu::Bpf {

void SetHostDefaults() {
    constexpr struct {
        const char* name;
        const char* value;
    } DEFAULTS[] = {
        {CLIENT_QUEUE_BYTES_PROPERTY, "16777216"},
        {QUEUE_BYTES_PROPERTY, "67108864"},
        {CLIENT_TYPES_PROPERTY, "256"},
        {CLIENTS_PROPERTY, "256"},
        {WATCH_PINS_PROPERTY, "10"},
        {MEND_TABLE_PROPERTY, "60"},
    };
    for (const auto& [name, value] : DEFAULTS) {
        const std::string given = android::base::GetProperty(name, "");
        size_t number = 0;
        if (android::base::ParseUint(given, &number)) {
            continue;
        }
        if (!given.empty()) {
            TESU_LOGE(TESU_LOG_SERVICE, "[SetHostDefaults] %s is no number: %s", name,
                      given.c_str());
        }
        if (!android::base::SetProperty(name, value)) {
            TESU_LOGW(TESU_LOG_SERVICE, "[SetHostDefaults] %s cannot be set to %s", name, value);
        }
    }
}

}  // namespace Tesu::Bpf

// SPDX-License-Identifier: Apache-2.0
#include "service/host_defaults.h"

#include <android-base/properties.h>

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
        if (android::base::GetProperty(name, "").empty() &&
            !android::base::SetProperty(name, value)) {
            TESU_LOGW(TESU_LOG_SERVICE, "[SetHostDefaults] %s cannot be set to %s", name, value);
        }
    }
}

}  // namespace Tesu::Bpf

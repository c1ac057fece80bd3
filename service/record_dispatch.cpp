// SPDX-License-Identifier: Apache-2.0
//
// What happens to a record: it is counted, forwarded to the clients that want it, and handled.
#include "records/raw_event.h"
#include "records/read_prefix.h"
#include "service/record_batch.h"
#include "service/tesu_bpf_service.h"
#include "util/log.h"

namespace Tesu::Bpf {

namespace {

// Of a record too short for a type word; above every type there is.
constexpr uint32_t NO_TYPE = UINT32_MAX;

}  // namespace

int TesuBpfService::handleBpfRingBuffEvent(void* /*ctx*/, void* data, unsigned size) {
    const uint32_t type = size < sizeof(type) ? NO_TYPE : ReadPrefix<uint32_t>(data, size);
    RecordBatch::Count(type);
    if (type >= RAW_EVENT_TYPE_COUNT) {
        TESU_LOGE(TESU_LOG_SERVICE, "[TesuBpfService] handleEvent ERROR!!! Type: %u", type);
        return -1;
    }
    char* record = static_cast<char*>(data);
    EventManager::GetInstance()->AppendEvent(record, size);
    const auto& handlers = GetInstance()->eventHandlers;
    const auto handler = handlers.find(static_cast<int32_t>(type));
    return handler == handlers.end() ? 0 : handler->second(record, size);
}

}  // namespace Tesu::Bpf

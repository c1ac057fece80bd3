// SPDX-License-Identifier: Apache-2.0
//
// What can be asked about events without a stream. Pure.
#include <errno.h>
#include <string.h>

#include "libtesubpf/tesubpf.h"
#include "records/event_types.h"

static const struct {
    uint32_t type;
    const char* name;
    const char* shortForm;
} TYPES[] = {
#define ROW(record, type, name, shortForm) {type, name, shortForm},
    TESU_EVENT_TYPES(ROW)
#undef ROW
};
static const size_t TYPE_COUNT = sizeof(TYPES) / sizeof(TYPES[0]);

const char* tesubpf_type_name(uint32_t type) {
    for (size_t i = 0; i < TYPE_COUNT; ++i) {
        if (TYPES[i].type == type) {
            return TYPES[i].name;
        }
    }
    return NULL;
}

int tesubpf_type_number(const char* name, uint32_t* type) {
    for (size_t i = 0; i < TYPE_COUNT; ++i) {
        if (strcmp(TYPES[i].name, name) == 0 || strcmp(TYPES[i].shortForm, name) == 0) {
            *type = TYPES[i].type;
            return 0;
        }
    }
    return -ENOENT;
}

void tesubpf_read(const struct tesubpf_event* event, void* record, size_t size) {
    const size_t covered = event->size < size ? event->size : size;
    if (covered > 0) {
        memcpy(record, event->data, covered);
    }
    memset((char*)record + covered, 0, size - covered);
}

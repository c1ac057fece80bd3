// SPDX-License-Identifier: Apache-2.0
#include "service/client_limits.h"

#include <android-base/parseint.h>
#include <android-base/properties.h>
#include <android-base/strings.h>

#include <limits>
#include <string>

#include "ipc/peer_credentials.h"
#include "records/contract.h"
#include "util/log.h"

namespace Tesu::Bpf {

namespace {

constexpr std::chrono::minutes REFUSAL_LOG_INTERVAL{1};
// A user who has been refused so long ago is forgotten when there are so many.
constexpr size_t MAX_REFUSED_USERS = 1000;

size_t ReadLimit(const char* property) {
    const std::string value = android::base::GetProperty(property, "0");
    size_t limit = 0;
    if (!android::base::ParseUint(value, &limit)) {
        TESU_LOGE(TESU_LOG_SERVICE, "[ClientLimits] %s is no number: %s", property, value.c_str());
    }
    return limit;
}

}  // namespace

EventLimits ReadEventLimits() {
    return {.clientBytes = ReadLimit(CLIENT_QUEUE_BYTES_PROPERTY),
            .totalBytes = ReadLimit(QUEUE_BYTES_PROPERTY),
            .clientTypes = ReadLimit(CLIENT_TYPES_PROPERTY)};
}

// What is no user id lets nobody in.
ClientAdmission::ClientAdmission() : mostClients(ReadLimit(CLIENTS_PROPERTY)) {
    const std::string list = android::base::GetProperty(CLIENT_UIDS_PROPERTY, "");
    if (list.empty()) {
        return;
    }
    for (const std::string& word : android::base::Split(list, ",")) {
        uid_t uid = 0;
        const bool isUid = android::base::ParseUint(android::base::Trim(word), &uid);
        if (!isUid) {
            TESU_LOGE(TESU_LOG_SERVICE, "[ClientAdmission] %s has what is no user id: %s",
                      CLIENT_UIDS_PROPERTY, word.c_str());
        }
        uids.insert(isUid ? uid : std::numeric_limits<uid_t>::max());
    }
}

bool ClientAdmission::admit(int fd, size_t others) {
    const ucred peer = PeerCredentials(fd);
    const bool isAllowed = uids.empty() || uids.contains(peer.uid);
    if (isAllowed && (mostClients == 0 || others < mostClients)) {
        return true;
    }
    const auto now = std::chrono::steady_clock::now();
    if (refused.size() >= MAX_REFUSED_USERS) {
        refused.clear();
    }
    const auto [last, isFirst] = refused.try_emplace(peer.uid, now);
    if (isFirst || now - last->second >= REFUSAL_LOG_INTERVAL) {
        last->second = now;
        TESU_LOGW(TESU_LOG_SERVICE, "[ClientAdmission] refused: pid %d, uid %u, %s", peer.pid,
                  peer.uid, isAllowed ? "there are too many clients" : "which may not connect");
    }
    return false;
}

}  // namespace Tesu::Bpf

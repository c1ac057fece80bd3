// SPDX-License-Identifier: Apache-2.0
#include "service/client_limits.h"

#include <android-base/parseint.h>
#include <android-base/properties.h>
#include <android-base/strings.h>

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

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

// What is no number in the list is nobody's id.
std::set<uint32_t> ReadIds(const char* property) {
    std::set<uint32_t> ids;
    const std::string list = android::base::GetProperty(property, "");
    if (list.empty()) {
        return ids;
    }
    for (const std::string& word : android::base::Split(list, ",")) {
        uint32_t id = 0;
        const bool isId = android::base::ParseUint(android::base::Trim(word), &id);
        if (!isId) {
            TESU_LOGE(TESU_LOG_SERVICE, "[ClientAdmission] %s has what is no number: %s", property,
                      word.c_str());
        }
        ids.insert(isId ? id : std::numeric_limits<uint32_t>::max());
    }
    return ids;
}

}  // namespace

EventLimits ReadEventLimits() {
    return {.clientBytes = ReadLimit(CLIENT_QUEUE_BYTES_PROPERTY),
            .totalBytes = ReadLimit(QUEUE_BYTES_PROPERTY),
            .clientTypes = ReadLimit(CLIENT_TYPES_PROPERTY)};
}

ClientAdmission::ClientAdmission()
    : uids(ReadIds(CLIENT_UIDS_PROPERTY)),
      gids(ReadIds(CLIENT_GIDS_PROPERTY)),
      mostClients(ReadLimit(CLIENTS_PROPERTY)) {}

bool ClientAdmission::mayStay(int fd, const ucred& peer) const {
    if ((uids.empty() && gids.empty()) || uids.contains(peer.uid) || gids.contains(peer.gid)) {
        return true;
    }
    const std::vector<gid_t> groups = PeerGroups(fd);
    return std::any_of(groups.begin(), groups.end(),
                       [&](gid_t group) { return gids.contains(group); });
}

bool ClientAdmission::admit(int fd, size_t others) {
    const ucred peer = PeerCredentials(fd);
    const bool isAllowed = mayStay(fd, peer);
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

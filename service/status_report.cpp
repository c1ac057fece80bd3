// SPDX-License-Identifier: Apache-2.0
#include "service/status_report.h"

#include "ipc/peer_credentials.h"

namespace Tesu::Bpf {

namespace {

template <class Status>
std::string BytesOf(const Status& status) {
    return {reinterpret_cast<const char*>(&status), sizeof(status)};
}

// Always with its NUL.
template <size_t N>
void CopyName(const std::string& name, char (&to)[N]) {
    name.copy(to, N - 1);
}

std::string Describe(const ClientState& client) {
    const ucred peer = PeerCredentials(client.fd);
    const ClientStatus status{.kind = STATUS_CLIENT,
                              .pid = peer.pid,
                              .uid = peer.uid,
                              .typeCount = static_cast<uint32_t>(client.types.size()),
                              .queuedBytes = client.queue.queuedBytes,
                              .queuedPackages = client.queue.queuedPackages,
                              .sentPackages = client.queue.takenPackages,
                              .droppedPackages = client.queue.refusedPackages};
    std::string bytes = BytesOf(status);
    bytes.append(reinterpret_cast<const char*>(client.types.data()),
                 client.types.size() * sizeof(client.types[0]));
    return bytes;
}

}  // namespace

std::vector<std::string> BuildStatusReport(const ServiceStatus& service,
                                           const std::vector<BpfProgramState>& programs,
                                           const std::vector<RingStatus>& rings,
                                           const std::vector<ClientState>& clients) {
    std::vector<std::string> report = {BytesOf(service)};
    for (const BpfProgramState& program : programs) {
        ProgramStatus status{
            .kind = STATUS_PROGRAM, .isAttached = program.isAttached, .object = {}, .event = {}};
        CopyName(program.object, status.object);
        CopyName(program.event, status.event);
        report.push_back(BytesOf(status));
    }
    for (const RingStatus& ring : rings) {
        report.push_back(BytesOf(ring));
    }
    for (const ClientState& client : clients) {
        report.push_back(Describe(client));
    }
    return report;
}

}  // namespace Tesu::Bpf

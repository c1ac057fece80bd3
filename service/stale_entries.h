// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace Tesu::Bpf {

// Clears what the programs of a ring (RingIndex) remember of tasks. Their maps outlive the service:
// entries may be about tasks that have gone since, under ids that are in use again. To be called
// while no class of events is on and before the maps are seeded. Maps that are not there are passed
// over.
void ClearStaleEntries(int ring);

}  // namespace Tesu::Bpf

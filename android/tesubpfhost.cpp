// SPDX-License-Identifier: Apache-2.0
//
// The host daemon of a device, started by init. Properties, folders, pins and the privileges come
// from the platform (docs/android.md). Nothing is to be put in order at the end, so SIGTERM just
// ends it.
#include "service/host_defaults.h"
#include "service/tesu_bpf_service.h"

int main() {
    Tesu::Bpf::SetHostDefaults();
    if (!Tesu::Bpf::BpfServiceMain()) {
        return 0;  // disabled by its property
    }
    return Tesu::Bpf::TesuBpfService::GetInstance()->Wait();
}

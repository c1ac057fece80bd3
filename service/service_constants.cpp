// SPDX-License-Identifier: Apache-2.0
//
// The service's paths, prefixes and program tables. One file, so that they are built in this order.
#include "proc/proc_text.h"
#include "records/contract.h"
#include "service/tesu_bpf_service.h"

namespace Tesu::Bpf {

const std::string TesuBpfService::PROC_FS_PATH = "/proc";
const std::string TesuBpfService::SUBTASK_PATH_TEMPLATE = PROC_FS_PATH + "/%s/task";
const std::string TesuBpfService::TASK_STATUS_TEMPLATE = PROC_FS_PATH + "/%s/status";
const std::string TesuBpfService::TASK_STATUS_PID_TEMPLATE = PROC_FS_PATH + "/%d/status";
const std::string TesuBpfService::TASK_STAT_TEMPLATE = PROC_FS_PATH + "/%s/stat";
const std::string TesuBpfService::TASK_MAPS_TEMPLATE = PROC_FS_PATH + "/%s/maps";
const std::string TesuBpfService::TASK_FD_TEMPLATE = PROC_FS_PATH + "/%s/fd";
const std::string TesuBpfService::TASK_COMM_PREFIX = STATUS_NAME;
const std::string TesuBpfService::TASK_PPID_PREFIX = STATUS_PPID;
const std::string TesuBpfService::TASK_RSS_ANON_PREFIX = STATUS_RSS_ANON;
const std::string TesuBpfService::TASK_RSS_FILE_PREFIX = STATUS_RSS_FILE;
const std::string TesuBpfService::TASK_RSS_SHMEM_PREFIX = STATUS_RSS_SHMEM;
const std::string TesuBpfService::TASK_VM_SWAP_PREFIX = STATUS_SWAP;
const std::string TesuBpfService::TASK_PROC_UID_PREFIX = STATUS_UID;
const std::string TesuBpfService::TASK_DMABUF_PREFIX = MAPS_DMABUF;
const std::string TesuBpfService::BPF_FS_PATH = TESU_PIN_DIR "/";
const std::string TesuBpfService::TESU_BPF_READY = READY_PROPERTY;
const std::string TesuBpfService::KERNEL_VERSION_PROP = KERNEL_VERSION_PROPERTY;

const BpfProgramTable TesuBpfService::PROG_EVENT_MAP = {
    {TESU_CORE_OBJECT,
     {{BPF_ATTACH_TYPE_TRACEPOINT,
       {"sched_sched_switch", "sched_sched_process_exit", "sched_sched_process_fork",
        "kmem_rss_stat"}},
      {BPF_ATTACH_TYPE_KPROBE, {"enter_fd_install", "return_filp_close"}}}},
};

// Attached on kernel 6.1 alone.
const BpfProgramTable TesuBpfService::PROG_GPL_EVENT_MAP = {
    {TESU_GPL_OBJECT,
     {{BPF_ATTACH_TYPE_TRACEPOINT, {"sched_sched_process_exit", "cgroup_cgroup_attach_task"}},
      {BPF_ATTACH_TYPE_KPROBE, {"enter_dma_buf_file_release", "enter_dma_buf_stats_setup"}}}},
};

}  // namespace Tesu::Bpf

// SPDX-License-Identifier: Apache-2.0
//
// The names by which the service, the eBPF programs' loader, hosts and clients find each other. All
// are fixed from outside; no other file spells one of them out. C has those of the socket.
#pragma once

// The service's stream socket, in the abstract namespace: no file of that name exists.
#define TESU_SERVICE_SOCKET_NAME "/mnt/bpfframework/tesubpfdispatcher"
// Request on it; its data is the event type, 4 bytes.
#define TESU_REGISTER_COMMAND "register-event-monitor"

#ifdef __cplusplus
namespace Tesu::Bpf {

// Pins in the bpf file system: programs are prog_OBJECT_TYPE_EVENT, maps map_OBJECT_NAME.
#define TESU_PIN_DIR "/sys/fs/bpf/tesu"
#define TESU_CORE_OBJECT "TesuBpfDefineset"
#define TESU_GPL_OBJECT "TesuBpfGplDefineset"
#define TESU_CORE_MAP(name) "map_" TESU_CORE_OBJECT "_" name
#define TESU_GPL_MAP(name) "map_" TESU_GPL_OBJECT "_" name

inline constexpr const char* PIN_DIR = TESU_PIN_DIR;
// File names below PIN_DIR. A ring buffer, the map that tells the programs which ring to write
// into, the one that tells them whether to wake the reader, and the ring's status map
// (RingStatusKey).
inline constexpr const char* CORE_RING_MAP = TESU_CORE_MAP("ringbuf_map");
inline constexpr const char* CORE_CURRENT_RING_MAP = TESU_CORE_MAP("ringbuf_current");
inline constexpr const char* CORE_POLLED_MAP = TESU_CORE_MAP("ringbuf_polled");
inline constexpr const char* CORE_STATUS_MAP = TESU_CORE_MAP("ringbuf_status");
inline constexpr const char* GPL_RING_MAP = TESU_GPL_MAP("ringbuf_map");
inline constexpr const char* GPL_CURRENT_RING_MAP = TESU_GPL_MAP("ringbuf_current");
inline constexpr const char* GPL_POLLED_MAP = TESU_GPL_MAP("ringbuf_polled");
inline constexpr const char* GPL_STATUS_MAP = TESU_GPL_MAP("ringbuf_status");
// Maps that the service seeds; values are in records/bpf_maps.h.
inline constexpr const char* OPEN_FD_MAP = TESU_CORE_MAP("open_fd_caller_map");
inline constexpr const char* DMABUF_ALLOCATE_MAP = TESU_GPL_MAP("dmabuf_allocate_map");
inline constexpr const char* DMABUF_SIZE_MAP = TESU_GPL_MAP("dmabuf_size_map");

// Dumps, which the service writes when a signal asks for one. Here, or where DUMP_DIR_PROPERTY
// says.
inline constexpr const char* DUMP_DIR = "/data/tesulog/stability/tesubpfframework";
inline constexpr const char* TASK_DUMP_FILE = "DUMPTASK_INFO";
inline constexpr const char* STATE_DUMP_FILE = "bpfservice_state.csv";
enum DumpSignal : int {
    DUMP_SIGNAL_STATE = 50,      // counters
    DUMP_SIGNAL_TASKS = 51,      // all columns, all tasks
    DUMP_SIGNAL_NO_KERNEL = 52,  // all columns, without kernel tasks
    DUMP_SIGNAL_NORMAL = 53,     // without the columns of old figures
    DUMP_SIGNAL_NORMAL_NO_KERNEL = 54,
};

inline constexpr const char* SERVICE_SOCKET_NAME = TESU_SERVICE_SOCKET_NAME;
inline constexpr char REGISTER_COMMAND[] = TESU_REGISTER_COMMAND;
// Like that one.
inline constexpr char UNREGISTER_COMMAND[] = "unregister-event-monitor";
// The one without data, see records/status.h.
inline constexpr char STATUS_COMMAND[] = "service-status";

// System properties.
#define TESU_PROPERTY(name) "persist.sys.stability.bpfframework." name
inline constexpr const char* DISABLE_PROPERTY = TESU_PROPERTY("disable");
inline constexpr const char* READY_PROPERTY = "sys.tesu_bpf_ready";  // "0": nothing is pinned yet
inline constexpr const char* KERNEL_VERSION_PROPERTY = "ro.kernel.version";  // "6.1": with GPL set
// Seconds between two looks whether other programs were pinned, and between two comparisons of the
// task table with /proc; none or "0": never.
inline constexpr const char* WATCH_PINS_PROPERTY = "sys.tesu_bpf_watch_pins";
inline constexpr const char* MEND_TABLE_PROPERTY = "sys.tesu_bpf_mend_table";

// Limits on clients; absent or "0": none. The hosts of this project set them (host_defaults.h).
inline constexpr const char* CLIENT_QUEUE_BYTES_PROPERTY = TESU_PROPERTY("client_queue_bytes");
inline constexpr const char* QUEUE_BYTES_PROPERTY = TESU_PROPERTY("queue_bytes");  // of all clients
inline constexpr const char* CLIENT_TYPES_PROPERTY = TESU_PROPERTY("client_types");
inline constexpr const char* CLIENTS_PROPERTY = TESU_PROPERTY("clients");
// User ids that may connect, as in "0,1000"; absent or empty: everybody.
inline constexpr const char* CLIENT_UIDS_PROPERTY = TESU_PROPERTY("client_uids");
// Groups whose members may, too. With either list those that are in none are sent away.
inline constexpr const char* CLIENT_GIDS_PROPERTY = TESU_PROPERTY("client_gids");

// The folder for dumps on a host that has none of that name; absent or empty: DUMP_DIR.
inline constexpr const char* DUMP_DIR_PROPERTY = TESU_PROPERTY("dump_dir");

}  // namespace Tesu::Bpf
#endif

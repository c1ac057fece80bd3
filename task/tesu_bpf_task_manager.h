// SPDX-License-Identifier: Apache-2.0
//
// The live task table: one record per process that the service knows of, and its dumps.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "task/task_store.h"
#include "task/tesu_task.h"
#include "util/export.h"
#include "util/mutex.h"

namespace Tesu::Bpf {

// Made on first use, from any thread; never destroyed.
//
// The operations take no lock, since they hand out pointers: a caller holds tesuTaskManagerLock for
// as long as it uses what it got. With the lock held nobody calls the fan-out. A pointer stays
// valid until its record is deleted. The dumps take the lock themselves.
class TESU_API TesuTaskManager {
  public:
    static TesuTaskManager* GetInstance();
    TesuTaskManager(const TesuTaskManager&) = delete;
    TesuTaskManager& operator=(const TesuTaskManager&) = delete;

    // The adders overwrite what is there and return 0. The getters give null for what is absent and
    // leave errno alone. The deleters set errno: 0, or ENOENT when there was nothing to delete.
    int32_t AddTesuTask(int32_t pid, TesuTask task) REQUIRES(tesuTaskManagerLock);
    TesuTask* GetTesuTask(int32_t pid) REQUIRES(tesuTaskManagerLock);
    // -1 for an absent pid
    int32_t DelTesuTask(int32_t pid) REQUIRES(tesuTaskManagerLock);
    uint32_t GetTesuTaskCount() const REQUIRES(tesuTaskManagerLock);
    // In no order.
    std::vector<TaskIdentity> ListTesuTasks() const REQUIRES(tesuTaskManagerLock);

    // By memory descriptor; for hosts, the service uses neither of these tables. The index does not
    // own its tasks, and deleting a task leaves its entry.
    int32_t AddMmidIndex(uint32_t mmid, TesuTask* task) REQUIRES(tesuTaskManagerLock);
    TesuTask* GetTesuTaskByMmid(uint32_t mmid) REQUIRES(tesuTaskManagerLock);
    // -1 for an absent mmid
    int32_t DelMmidIndex(uint32_t mmid) REQUIRES(tesuTaskManagerLock);

    int32_t AddRssTempTask(uint32_t mmid, TesuTask task) REQUIRES(tesuTaskManagerLock);
    TesuTask* GetRssTempTask(uint32_t mmid) REQUIRES(tesuTaskManagerLock);
    // Always 0.
    int32_t DelRssTempTask(uint32_t mmid) REQUIRES(tesuTaskManagerLock);

    // Replace the dump file by the table of this moment, largest processes first. IgnoreKernelTask
    // leaves out tasks without memory, Normal the columns of old figures. A file that cannot be
    // created is logged. Any thread, without the lock; not a signal handler (see
    // service/dump_requests.h).
    void DumpTesuTaskInfo();
    void DumpTesuTaskIgnoreKernelTaskInfo();
    void DumpTesuTaskInfoNormal();
    void DumpTesuTaskIgnoreKernelTaskInfoNormal();

    // Guards the table and every record in it. No other lock is taken while it is held.
    static Mutex tesuTaskManagerLock;

    static const std::string TESUTASK_DUMP_PATH;
    static const std::string TESUTASK_DUMP_TEMPLATE;

  private:
    TesuTaskManager() = default;

    enum class KernelTasks { INCLUDED, LEFT_OUT };
    enum class OldColumns { PRINTED, LEFT_OUT };
    void dump(KernelTasks kernelTasks, OldColumns oldColumns);
    // The records of one moment.
    std::vector<TaskStore::Chunk> copyTasks() EXCLUDES(tesuTaskManagerLock);

    // Not the table's, which the first caller may hold.
    static Mutex creationLock;
    static std::atomic<TesuTaskManager*> instance;

    TaskStore tasks GUARDED_BY(tesuTaskManagerLock);
    std::map<uint32_t, TesuTask*> mmidIndex GUARDED_BY(tesuTaskManagerLock);
    std::map<uint32_t, TesuTask> rssTempTasks GUARDED_BY(tesuTaskManagerLock);
};

// The dumps by signal number, for ordinary threads: 51 all, 52 without kernel tasks, 53 all without
// old columns, 54 without both.
TESU_API void HandleDumpSignal(int signal);
TESU_API void HandleNonKernelDumpSignal(int signal);
TESU_API void HandleDumpSignalNormal(int signal);
TESU_API void HandleNonKernelDumpSignalNormal(int signal);

}  // namespace Tesu::Bpf

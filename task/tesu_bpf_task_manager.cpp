// SPDX-License-Identifier: Apache-2.0
//
// The table itself; its dumps are in task_dump.cpp.
#include "task/tesu_bpf_task_manager.h"

#include <cerrno>

#include "util/singleton.h"

namespace Tesu::Bpf {

namespace {

// Null when the key is absent.
template <class Map>
typename Map::mapped_type* Find(Map& map, typename Map::key_type key) {
    const auto found = map.find(key);
    return found == map.end() ? nullptr : &found->second;
}

// Sets errno as the deleters do; `erased` itself.
bool NoteErased(bool erased) {
    errno = erased ? 0 : ENOENT;
    return erased;
}

}  // namespace

Mutex TesuTaskManager::tesuTaskManagerLock;
Mutex TesuTaskManager::creationLock;
std::atomic<TesuTaskManager*> TesuTaskManager::instance{nullptr};

bool CompareTesuTask(const TesuTask& a, const TesuTask& b) {
    return CompareTotals(TotalSize(a), TotalSize(b));
}

TesuTaskManager* TesuTaskManager::GetInstance() {
    return GetOrMake(instance, creationLock, [] { return new TesuTaskManager(); });
}

int32_t TesuTaskManager::AddTesuTask(int32_t pid, TesuTask task) {
    tasks.put(pid, task);
    return 0;
}

TesuTask* TesuTaskManager::GetTesuTask(int32_t pid) {
    return tasks.find(pid);
}

int32_t TesuTaskManager::DelTesuTask(int32_t pid) {
    return NoteErased(tasks.erase(pid)) ? 0 : -1;
}

uint32_t TesuTaskManager::GetTesuTaskCount() const {
    return static_cast<uint32_t>(tasks.size());
}

std::vector<TaskIdentity> TesuTaskManager::ListTesuTasks() const {
    std::vector<TaskIdentity> list;
    list.reserve(tasks.size());
    tasks.forEach([&list](int32_t pid, const TesuTask& task) {
        list.push_back({pid, task.createEventTime, task.initTimeStamp});
    });
    return list;
}

int32_t TesuTaskManager::AddMmidIndex(uint32_t mmid, TesuTask* task) {
    mmidIndex.insert_or_assign(mmid, task);
    return 0;
}

TesuTask* TesuTaskManager::GetTesuTaskByMmid(uint32_t mmid) {
    TesuTask* const* entry = Find(mmidIndex, mmid);
    return entry == nullptr ? nullptr : *entry;
}

int32_t TesuTaskManager::DelMmidIndex(uint32_t mmid) {
    return NoteErased(mmidIndex.erase(mmid) != 0) ? 0 : -1;
}

int32_t TesuTaskManager::AddRssTempTask(uint32_t mmid, TesuTask task) {
    rssTempTasks.insert_or_assign(mmid, task);
    return 0;
}

TesuTask* TesuTaskManager::GetRssTempTask(uint32_t mmid) {
    return Find(rssTempTasks, mmid);
}

// Unlike its siblings it reports a miss through errno alone.
int32_t TesuTaskManager::DelRssTempTask(uint32_t mmid) {
    NoteErased(rssTempTasks.erase(mmid) != 0);
    return 0;
}

}  // namespace Tesu::Bpf

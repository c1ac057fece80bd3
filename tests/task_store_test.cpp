// SPDX-License-Identifier: Apache-2.0
//
// Where the task table's records lie, while processes come and go by the thousand.
#include "task/task_store.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <vector>

namespace Tesu::Bpf {
namespace {

TEST(TaskStoreTest, ARecordIsFoundWhereItWasPutAndItsRoomIsUsedAgain) {
    std::mt19937 random(1);
    std::vector<int32_t> pids(4000);
    std::generate(pids.begin(), pids.end(), [&] { return static_cast<int32_t>(random()); });
    TaskStore store;
    std::map<int32_t, TesuTask*> records;
    std::set<TesuTask*> places;
    size_t most = 0;
    for (uint32_t step = 1; step <= 40000; ++step) {
        const int32_t pid = pids[random() % pids.size()];
        if (random() % 2 == 0) {
            ASSERT_EQ(store.erase(pid), records.erase(pid) != 0);
        } else {
            TesuTask task;
            task.pid = pid;
            task.mmId = step;
            store.put(pid, task);
            TesuTask* const place = store.find(pid);
            ASSERT_EQ(records.try_emplace(pid, place).first->second, place);
            ASSERT_EQ(place->mmId, step);
            places.insert(place);
            most = std::max(most, records.size());
        }
        ASSERT_EQ(store.size(), records.size());
        for (int look = 0; look < 10; ++look) {
            const int32_t other = pids[random() % pids.size()];
            const auto record = records.find(other);
            ASSERT_EQ(store.find(other), record == records.end() ? nullptr : record->second);
            ASSERT_TRUE(record == records.end() || record->second->pid == other);
        }
    }
    EXPECT_EQ(places.size(), most);
}

}  // namespace
}  // namespace Tesu::Bpf

// SPDX-License-Identifier: Apache-2.0
#include "model/sample_history.h"

namespace Tesu::Bpf {

namespace {

// Fewer steps are a jump, not growth.
constexpr size_t MIN_STEPS = 4;
// Seconds without a step after which the growth has ended.
constexpr size_t RECENT = 10;

}  // namespace

bool IsGrowing(const std::vector<uint32_t>& sizes) {
    if (sizes.size() <= MIN_STEPS) {
        return false;
    }
    const uint32_t first = sizes.front();
    const uint32_t last = sizes.back();
    if (last < first || last - first < std::max(GROWTH_MIN_KIB, first / 10)) {
        return false;
    }
    const uint32_t growth = last - first;
    size_t steps = 0;
    size_t lastStep = 0;
    for (size_t i = 1; i < sizes.size(); ++i) {
        // Ups and downs of a hundredth are noise.
        if (sizes[i] > sizes[i - 1] && sizes[i] - sizes[i - 1] > growth / 100) {
            ++steps;
            lastStep = i;
        }
    }
    const uint32_t highest = *std::max_element(sizes.begin(), sizes.end());
    return steps >= MIN_STEPS && sizes.size() - lastStep <= RECENT && highest - last <= growth / 10;
}

}  // namespace Tesu::Bpf

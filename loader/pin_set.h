// SPDX-License-Identifier: Apache-2.0
//
// The folder in a bpf file system in which all programs and maps are pinned.
//
// A program is pinned as prog_<object>_<program>, a map as map_<object>_<map>. For a program that
// this kernel could not take there is left_out_<object>_<program>, a symbolic link that points
// nowhere and whose text is the reason. A folder with all of these is complete.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "loader/load_object.h"
#include "util/result.h"

namespace Tesu::Bpf {

bool IsOnBpfFileSystem(const std::string& path);

// The names of what is pinned in `dir`, other files not counted; empty where there is no folder.
std::set<std::string> ListPins(const std::string& dir);

// All maps of an object but libbpf's own, of constants and variables.
std::vector<bpf_map*> MapsToPin(const bpf_object* object);

// The pins of this object, opened or loaded, that `dir` does not have.
std::vector<std::string> FindMissingPins(const std::string& dir, const std::string& objectName,
                                         const bpf_object* object);

// Pins all programs and maps of a loaded object in `dir`, which exists.
Result<> PinObject(const std::string& dir, const std::string& objectName, const bpf_object* object,
                   const LeftOutPrograms& leftOut);

// Removes what is pinned in `dir` and then the folder. Files that are not ours stay, and are an
// error, since the folder stays with them. No folder is no error.
Result<> RemovePins(const std::string& dir);

}  // namespace Tesu::Bpf

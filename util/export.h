// SPDX-License-Identifier: Apache-2.0
//
// Marks what libtesubpfservice.so exports; everything else is hidden.
#pragma once

#define TESU_API __attribute__((visibility("default")))

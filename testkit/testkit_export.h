// SPDX-License-Identifier: Apache-2.0
#pragma once

#define TESTKIT_API __attribute__((visibility("default")))

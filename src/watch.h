// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

#include <Ecore.h>

namespace nelvo {

// Starts the time that the application has to complete the current request, and takes the action
// handler that stands for it.
//
// Returns the action handler, with timer set to one that calls expired(data) once, unless it is
// deleted before; or logs in the name of the given function and returns null, with timer null.
void *beginWatch(Ecore_Timer *&timer, Ecore_Task_Cb expired, void *data, std::string_view actionId,
                 const char *function);

// Deletes the timer, if there is one, and forgets it.
void cancelTimer(Ecore_Timer *&timer);

} // namespace nelvo

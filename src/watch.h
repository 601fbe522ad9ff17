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

// For when the timer fires: forgets it and logs why the request failed. Returns false when the watch had
// ended already, and then does neither.
bool expireWatch(Ecore_Timer *&timer, const char *reason, const char *function);

// What is to become of a completion by the application: it is sent, dropped because it belongs to an
// older request, or ends with the code at once.
struct Completion {
    enum Verdict { SEND, DROP, RETURN };
    Verdict verdict;
    int code;       // to return, unless the completion is sent
    int number = 0; // of the handler, unless the verdict is RETURN
};

// Compares a completion with the pending request, which the timer watches over, and logs in the name of
// the given function what keeps it from being sent; tooLate is said when there is no timer.
Completion checkCompletion(const void *actionHandler, const Ecore_Timer *timer, const char *tooLate,
                           const char *function);

// Deletes the timer, if there is one, and forgets it.
void cancelTimer(Ecore_Timer *&timer);

} // namespace nelvo

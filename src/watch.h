// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

#include <Ecore.h>

namespace nelvo {

// Starts the timer for the completion of the current request, and takes the request's action
// handler.
//
// Returns the action handler, and sets timer to one that calls expired(data) once unless it is
// deleted before. On failure logs under the given function's name and returns null, with timer
// null.
void *beginWatch(Ecore_Timer *&timer, Ecore_Task_Cb expired, void *data, std::string_view actionId,
                 const char *function);

// To be called when the timer fires: sets timer to null and logs why the request failed. Returns
// false and does neither if timer is null already.
bool expireWatch(Ecore_Timer *&timer, const char *reason, const char *function);

// What to do with a completion by the application: send it, drop it because it belongs to an older
// request, or return the code at once.
struct Completion {
    enum Verdict { SEND, DROP, RETURN };
    Verdict verdict;
    int code;       // to be returned unless the completion is sent
    int number = 0; // of the handler, unless the verdict is RETURN
};

// Compares a completion with the pending request, whose timer this is, and logs under the given
// function's name why the completion is not to be sent; tooLate is that reason if timer is null.
Completion checkCompletion(const void *actionHandler, const Ecore_Timer *timer, const char *tooLate,
                           const char *function);

// Deletes the timer, if there is one, and sets it to null.
void cancelTimer(Ecore_Timer *&timer);

} // namespace nelvo

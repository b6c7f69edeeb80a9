// SPDX-License-Identifier: MIT
// Counts, fails and delays the calls that the library makes.
//
// A test that includes this header is linked with the library's objects, whose calls of the names
// that calls.cpp wraps go to the wrappers. Calls are counted between calls_watch() and
// calls_stop(); otherwise the wrappers only pass them on.
#pragma once
#include <functional>
#include <string>

struct tCall {
    std::string name; // the function
    unsigned nth;     // from 1: its place among the calls of this name since calls_watch()
};

// Decides on a call: 0 passes it on, any other value fails it with that error number. The rule runs
// on the calling thread with no lock held, so it may block. Its own calls are not counted.
using tCallRule = std::function<int(const tCall &)>;

// Starts counting from zero, for all threads. Without a rule calls are only counted.
void calls_watch(tCallRule rule = nullptr);
// Runs `body` without counting the calls of this thread.
void calls_uncounted(const std::function<void()> &body);
// Stops counting; the counts stay readable.
void calls_stop();
// Fails the nth call of `name` (0: each one) with `err`.
tCallRule calls_fail(std::string name, unsigned nth, int err);
// How often a function was called.
unsigned calls_count(const std::string &name);

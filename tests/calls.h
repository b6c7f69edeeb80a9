// SPDX-License-Identifier: MIT
// Counting, failing and holding the calls that the library makes.
//
// A test that includes this header is linked against the library's own objects with the names that
// calls.cpp wraps redirected there. Nothing is counted until calls_watch(); outside that the calls
// go straight through.
#pragma once
#include <functional>
#include <string>

struct tCall {
    std::string name; // the function
    unsigned nth;     // from 1: its place among the calls of this name since calls_watch()
};

// Decides a call: 0 lets it through, anything else fails it with that error number. It runs on the
// calling thread with no lock held, so it may block there, or make calls of its own (not counted).
using tCallRule = std::function<int(const tCall &)>;

// Starts counting from zero under `rule` (none: only count). Calls of every thread are seen.
void calls_watch(tCallRule rule = nullptr);
// What `body` calls on this thread is the test's own and not counted.
void calls_uncounted(const std::function<void()> &body);
// Stops counting; the counts stay readable.
void calls_stop();
// Fails the nth call of `name` (0: each one) with `err`.
tCallRule calls_fail(std::string name, unsigned nth, int err);
// How often a function was called.
unsigned calls_count(const std::string &name);

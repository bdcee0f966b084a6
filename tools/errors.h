#pragma once

#include <string>

// One line on standard error. Never waits once the error log is started: what standard error does not take for
// long is dropped, and how much that was is said as soon as it takes lines again.
void Complain(const std::string& text);  // with the program's name
void SayError(const std::string& line);  // as it is

// A thread of its own writes from now on. False: none to be had.
bool StartErrorLog();

// Waits a little for what is not written. False: the thread hangs in the kernel.
bool StopErrorLog();

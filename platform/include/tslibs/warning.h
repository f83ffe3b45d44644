// Messages outside the levels of the log.
#pragma once

// A warning line on every log output.
void Warning(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Logs the message at level 110 and aborts the process.
[[noreturn]] void Panic(const char* format, ...) __attribute__((format(printf, 1, 2)));

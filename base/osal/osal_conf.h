#pragma once

// The configuration store: one string value per file, the file's whole
// content being the value (no terminator, no newline). No lock is taken;
// concurrent writers of one value may interleave. All functions return 0 or
// -1 and log every failure once; none throws.

// Reads the value at path into buffer. The value ends at the first tab,
// line feed, carriage return or zero byte, so a hand-edited file with a
// trailing newline reads the same. A missing file is not an error: 0 and an
// empty string. A value without a line break must be at least one byte
// shorter than bufferSize; one that fills the buffer is a failure.
int osal_getconfstr(const char* path, char* buffer, unsigned int bufferSize);

// Replaces the value at path, creating the file if needed. ownerOnly sets
// mode 0600, everyoneReadWrite 0666 (applied second, so it wins). What was
// written before a failure stays on disk.
int osal_setconfstr(const char* path, const char* value, bool ownerOnly, bool everyoneReadWrite);

// Writes a value named name into the temporary configuration directory
// "/tmp/.tidelocker\r" (the carriage return is part of the name). Anyone
// can create that name in /tmp first, so a directory that is not ours, or
// that others may write to, is refused (-1), and no link at the file's name
// is followed.
//
// It writes as many bytes from value as the file's path has characters, not
// strlen(value): value must point to at least that many readable bytes. The
// files written so far have exactly this layout and their readers stop at
// the first zero or line break, so it is kept.
int osal_setconfstrtmp(const char* name, const char* value);

// osal_setconfstrtmp with the directory given, so that the behaviour can be
// exercised outside /tmp. The path is dir + "/" + name.
int osal_setconfstrtmpIn(const char* dir, const char* name, const char* value);

// "/tmp/.tidelocker\r".
extern const char* const OSAL_CONF_TMP_DIR;

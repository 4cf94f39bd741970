// The connected clients as the rest of the daemon names them: by a handle that holds a descriptor
// number together with a generation. The system gives a closed descriptor's number to whatever is
// opened next; a handle is never given twice, so what was meant for a client that has gone reaches
// nobody. 0 is no client. Any thread may call.
#pragma once

#include <stdint.h>

// Takes `fd` over, which must be below FD_SETSIZE and is made non-blocking. Its handle, or
// -10000 when memory is out: `fd` is then still the caller's.
int32_t local_client_open(int fd);

// Closes the client's descriptor; sends to the handle fail from then on.
void local_client_close(int32_t client);

// Whether the client has not been closed yet.
bool local_client_is_open(int32_t client);

// The descriptor's number, for the log and, on the thread that opens and closes, for reading.
int local_client_fd(int32_t client);

// Sends one frame without waiting; frames to one client never mix.
//   0; -10000 when memory is out; -1101 when the client is gone or leaves too much untaken.
int32_t local_client_send(int32_t client, const char* text);

// Whether frames wait for the client to take them.
bool local_client_is_waiting(int32_t client);

// Sends on what waits, as far as the client takes it.
void local_client_flush(int32_t client);

// The eventfd that is written when a frame begins to wait, for the thread that flushes; -1: none.
void local_client_set_waker(int eventfd);

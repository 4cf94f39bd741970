// Finding a peer that has vanished without a word.
#pragma once

// Has the kernel give up the TCP connection when nothing has come from the peer for a minute,
// although it was asked for a sign of life, or when something sent has waited a minute for its
// acknowledgement (up to two on kernels before 4.19, which look only when they send it again). A
// kernel that lacks one of the options does without.
void keepalive_set(int fd);

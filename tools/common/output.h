// Standard output whose loss is noticed: a full disk, a reader that has gone.
#pragma once

// To be called before anything is opened or printed. A write into a closed pipe fails from then on
// instead of ending the program, and no descriptor opened later takes a closed standard stream's
// place. False, said on standard error, when standard output is closed.
bool output_prepare();

// Hands on what has been printed. False once anything was lost, which is said on standard error the
// first time. One thread at a time.
bool output_flush();

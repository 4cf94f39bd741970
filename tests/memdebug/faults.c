/* memdebug_faults FAULT: does one thing wrong with the heap, for the log to tell. */
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

enum { SIZE = 20, THREADS = 4, TURNS = 3000 };

static char* passed[THREADS];
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

static void check(int good, const char* what) {
    if (!good) {
        fprintf(stderr, "wrong: %s\n", what);
    }
}

/* Frees what any thread left in a place, and leaves a new block there. */
static void* pass_on(void* argument) {
    (void)argument;
    for (int i = 0; i < TURNS; i++) {
        char* block = calloc(1, (size_t)(i % 300));
        pthread_mutex_lock(&lock);
        char* const other = passed[i % THREADS];
        passed[i % THREADS] = block;
        pthread_mutex_unlock(&lock);
        free(other);
    }
    return NULL;
}

static void use_threads(void) {
    pthread_t threads[THREADS];
    for (int i = 0; i < THREADS; i++) {
        pthread_create(&threads[i], NULL, pass_on, NULL);
    }
    const pid_t child = fork();
    if (child == 0) {
        free(malloc(SIZE));
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    check(status == 0, "the child's end");
    for (int i = 0; i < THREADS; i++) {
        pthread_join(threads[i], NULL);
    }
    for (int i = 0; i < THREADS; i++) {
        free(passed[i]);
    }
}

static void use_functions(void) {
    void* block = NULL;
    char* text = strdup("a text of the C library's own");
    text = realloc(text, 2000);
    check(strcmp(text, "a text of the C library's own") == 0, "what realloc moved");
    check(malloc_usable_size(text) == 2000, "the size");
    free(text);
    check(posix_memalign(&block, 3, SIZE) != 0, "an alignment of 3");
    check(posix_memalign(&block, 4096, SIZE) == 0 && (uintptr_t)block % 4096 == 0, "alignment");
    free(block);
    check(calloc(SIZE_MAX / 2, 3) == NULL, "calloc of too much");
    check(malloc(SIZE_MAX - 5) == NULL, "malloc of too much");
    check(realloc(malloc(SIZE), 0) == NULL, "realloc to nothing");
    free(NULL);
    char** newest = NULL;
    for (int i = 0; i < TURNS; i++) { /* each block holds the one before */
        char** const one = malloc(sizeof(char*));
        *one = (char*)newest;
        newest = one;
    }
    while (newest != NULL) {
        char** const before = (char**)*newest;
        free(newest);
        newest = before;
    }
}

int main(int argc, char** argv) {
    const char* const fault = argc > 1 ? argv[1] : "";
    char* const block = malloc(SIZE);
    char local[SIZE];
    if (strcmp(fault, "overrun") == 0) {
        block[SIZE + 1] = 0;
    } else if (strcmp(fault, "underrun") == 0) {
        block[-2] = 0;
    } else if (strcmp(fault, "overrun_held") == 0) {
        ((char*)malloc(SIZE))[SIZE] = 0;
    } else if (strcmp(fault, "double_free") == 0) {
        free(block);
    } else if (strcmp(fault, "foreign_free") == 0) {
        free(local + 8);
    } else if (strcmp(fault, "leak") == 0) {
        (void)malloc(4321);
        raise(SIGUSR2);
    } else {
        use_threads();
        use_functions();
    }
    free(block);
    block[5] = strcmp(fault, "late_write") == 0 ? 0 : block[5];
    return 0;
}

/* A plain C program on libvexlo, run by vexlo-sim with its fault options:
 *   unplug   under --unplug 0:1:3
 *   delay    under --answer-delay 0:2000:1
 * Prints what went wrong and exits 1, or exits 0. */
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "vexlo.h"

static double g_t0;

/* Seconds since the program started. */
static double Now(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + ts.tv_nsec / 1e9 - g_t0;
}

static int Fail(const char* what, double value) {
    printf("FAIL: %s (%.3f)\n", what, value);
    return 1;
}

/* Opens adapter 0 and starts channel 0 at 1 Mbit/s by `until` seconds; 0 when that fails. */
static int OpenAndStart(double until) {
    CAN_INIT init = {0, 0xFFFFFFFFu, 0, 1, 0x00, 0x14, 0};
    return VCI_OpenDevice(4, 0, 0) == 1 && VCI_InitCAN(4, 0, 0, &init) == 1 && VCI_StartCAN(4, 0, 0) == 1 &&
           Now() < until;
}

/* After `at` seconds, a start command fails after a wait of `least` to `most` seconds. */
static int StartFails(double at, double least, double most) {
    while (Now() < at) usleep(10000);
    double t = Now();
    unsigned r = VCI_StartCAN(4, 0, 0);
    t = Now() - t;
    return r == 0 && t >= least && t <= most ? 0 : Fail("start command late or not failed", t);
}

int main(int argc, char** argv) {
    CAN_OBJ f;
    memset(&f, 0, sizeof f);
    g_t0 = Now();
    if (argc == 2 && strcmp(argv[1], "unplug") == 0) {
        /* A command waits 1000 ms for its OUT transfer plus 1000 ms, a transmit 2000 + 1000 ms. */
        if (!OpenAndStart(0.9) || StartFails(1.3, 1.9, 6)) return Fail("unplug", Now());
        double t = Now();
        if (VCI_Transmit(4, 0, 0, &f, 1) != 0 || Now() - t < 2.9) return Fail("transmit", Now() - t);
        if (VCI_CloseDevice(4, 0) != 1) return Fail("close after the unplug", Now());
        while (Now() < 3.5) usleep(10000); /* plugged back at 3 s */
        return OpenAndStart(60) && VCI_CloseDevice(4, 0) == 1 ? 0 : Fail("open after the replug", Now());
    }
    if (argc == 2 && strcmp(argv[1], "delay") == 0) /* answered 2000 ms late, given up after 1000 */
        return !OpenAndStart(0.9) || StartFails(1.3, 0.9, 1.9) || VCI_CloseDevice(4, 0) != 1;
    return Fail("usage: sim_faults unplug | delay", 0);
}

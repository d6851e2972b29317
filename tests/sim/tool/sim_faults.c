/* A plain C program on libvexlo, run by vexlo-sim with its fault and trace options:
 *   unplug       under --unplug 0:1:3
 *   delay        under --answer-delay 0:2000:1
 *   trace FILE   under --uncabled --trace FILE
 * Prints what went wrong and exits 1, or exits 0. */
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "vexlo.h"

static double g_t0;

/* Seconds since the program started (wall clock: since the epoch). */
static double Now(int wall) {
    struct timespec ts;
    clock_gettime(wall ? CLOCK_REALTIME : CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + ts.tv_nsec / 1e9 - (wall ? 0 : g_t0);
}

static int Fail(const char* what, double value) {
    printf("FAIL: %s (%.3f)\n", what, value);
    return 1;
}

/* Opens adapter 0 and starts channel 0 at 1 Mbit/s by `until` seconds; 0 when that fails. */
static int OpenAndStart(double until) {
    CAN_INIT init = {0, 0xFFFFFFFFu, 0, 1, 0x00, 0x14, 0};
    return VCI_OpenDevice(4, 0, 0) == 1 && VCI_InitCAN(4, 0, 0, &init) == 1 && VCI_StartCAN(4, 0, 0) == 1 &&
           Now(0) < until;
}

/* After `at` seconds, a start command fails after a wait of `least` to `most` seconds. */
static int StartFails(double at, double least, double most) {
    while (Now(0) < at) usleep(10000);
    double t = Now(0);
    unsigned r = VCI_StartCAN(4, 0, 0);
    t = Now(0) - t;
    return r == 0 && t >= least && t <= most ? 0 : Fail("start command late or not failed", t);
}

int main(int argc, char** argv) {
    CAN_OBJ f;
    CAN_STAT st;
    char line[128], want[64];
    memset(&f, 0, sizeof f);
    g_t0 = Now(0);
    if (argc == 2 && strcmp(argv[1], "unplug") == 0) {
        /* A command waits 1000 ms for its OUT transfer plus 1000 ms, a transmit 2000 + 1000 ms. */
        if (!OpenAndStart(0.9) || StartFails(1.3, 1.9, 6)) return Fail("unplug", Now(0));
        double t = Now(0);
        if (VCI_Transmit(4, 0, 0, &f, 1) != 0 || Now(0) - t < 2.9) return Fail("transmit", Now(0) - t);
        if (VCI_CloseDevice(4, 0) != 1) return Fail("close after the unplug", Now(0));
        while (Now(0) < 3.5) usleep(10000); /* plugged back at 3 s */
        return OpenAndStart(60) && VCI_CloseDevice(4, 0) == 1 ? 0 : Fail("open after the replug", Now(0));
    }
    if (argc == 2 && strcmp(argv[1], "delay") == 0) /* answered 2000 ms late, given up after 1000 */
        return !OpenAndStart(0.9) || StartFails(1.3, 0.9, 1.9) || VCI_CloseDevice(4, 0) != 1;
    if (argc != 3 || strcmp(argv[1], "trace") != 0) return Fail("usage: sim_faults unplug | delay | trace FILE", 0);
    /* A frame on a lone channel completes (the analyser acknowledges it) and its line reaches the
     * trace file within the flush interval. Only 11 bits of its identifier reach the bus. */
    f.Id = 0xFFFF;
    f.DataLength = 4;
    memcpy(f.Data, "\xDE\xAD\xBE\xEF", 4);
    if (!OpenAndStart(60) || VCI_Transmit(4, 0, 0, &f, 1) != 1) return Fail("open and send", Now(0));
    double sent = Now(1);
    usleep(50000);
    if (VCI_ReadCANStatus(4, 0, 0, &st) != 1 || st.RegTxErrCount != 0 || !(st.RegStatus & 0x08))
        return Fail("frame completed without errors", st.RegTxErrCount);
    for (double until = Now(0) + 5; Now(0) < until; usleep(50000)) {
        FILE* in = fopen(argv[2], "r");
        double stamp = 0;
        int got = in && fgets(line, sizeof line, in) && sscanf(line, "(%lf) %63[^\n]", &stamp, want) == 2;
        if (in) fclose(in);
        if (got && strcmp(want, "sim0can0 7FF#DEADBEEF") != 0) return Fail(line, 0);
        if (got) return stamp > sent - 1 && stamp < sent + 1 ? 0 : Fail("wall-clock time", stamp - sent);
    }
    return Fail("no line in the trace file", Now(0));
}

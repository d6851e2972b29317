/* A plain C program on libvexlo, run by vexlo-sim with its fault and trace options:
 *   unplug       under --unplug 0:1:3
 *   delay        under --answer-delay 0:1300:1
 *   trace FILE   under --uncabled --trace FILE
 * Prints what went wrong and exits 1, or exits 0. */
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "vexlo.h"

static double g_t0;

static double Wall(void) {
    struct timeval tv;
    gettimeofday(&tv, NULL);
    return (double)tv.tv_sec + tv.tv_usec / 1e6;
}

static double Now(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + ts.tv_nsec / 1e9 - g_t0;
}

static int Fail(const char* what, double value) {
    printf("FAIL: %s (%.3f)\n", what, value);
    return 1;
}

static void SleepUntil(double t) {
    while (Now() < t) usleep(10000);
}

/* Opens adapter 0 and starts channel 0 at 1 Mbit/s; 0 when that fails. */
static int OpenAndStart(void) {
    CAN_INIT init = {0, 0xFFFFFFFFu, 0, 1, 0x00, 0x14, 0};
    return VCI_OpenDevice(4, 0, 0) == 1 && VCI_InitCAN(4, 0, 0, &init) == 1 && VCI_StartCAN(4, 0, 0) == 1;
}

/* A call of a failing exchange: its result and how long it took, in *took. */
static unsigned Timed(unsigned (*call)(void), double* took) {
    double t = Now();
    unsigned r = call();
    *took = Now() - t;
    return r;
}

static unsigned Start0(void) { return VCI_StartCAN(4, 0, 0); }

static unsigned Send0(void) {
    CAN_OBJ f;
    memset(&f, 0, sizeof f);
    f.Id = 0x123;
    return VCI_Transmit(4, 0, 0, &f, 1);
}

static int Unplug(void) {
    double took;
    if (!OpenAndStart() || Now() > 0.9) return Fail("open and start before the unplug at 1 s", Now());
    SleepUntil(1.3);
    /* A command waits 1000 ms for its OUT transfer plus 1000 ms, a transmit 2000 + 1000 ms. */
    if (Timed(Start0, &took) != 0 || took < 1.9 || took > 6) return Fail("command after the unplug", took);
    if (Timed(Send0, &took) != 0 || took < 2.9 || took > 8) return Fail("transmit after the unplug", took);
    if (VCI_CloseDevice(4, 0) != 1) return Fail("close after the unplug", Now());
    SleepUntil(3.5); /* plugged back at 3 s */
    if (!OpenAndStart()) return Fail("open after the replug", Now());
    return VCI_CloseDevice(4, 0) == 1 ? 0 : Fail("close after the replug", Now());
}

static int Delay(void) {
    double took;
    if (!OpenAndStart() || Now() > 0.9) return Fail("open and start before the delay at 1 s", Now());
    SleepUntil(1.3);
    /* Answered 1300 ms late: the call gives up after its wait of 1000 ms. */
    if (Timed(Start0, &took) != 0 || took < 0.9 || took > 1.29) return Fail("late answer", took);
    return VCI_CloseDevice(4, 0) == 1 ? 0 : Fail("close", Now());
}

/* A frame on a lone channel completes (the analyser acknowledges it) and its line reaches the
 * trace file within the flush interval. */
static int Trace(const char* path) {
    CAN_OBJ f;
    CAN_STAT st;
    char line[128], want[64];
    memset(&f, 0, sizeof f);
    f.Id = 0xFFFF; /* only 11 bits reach the bus */
    f.DataLength = 4;
    memcpy(f.Data, "\xDE\xAD\xBE\xEF", 4);
    if (!OpenAndStart() || VCI_Transmit(4, 0, 0, &f, 1) != 1) return Fail("open and send", Now());
    double sent = Wall();
    usleep(50000);
    if (VCI_ReadCANStatus(4, 0, 0, &st) != 1 || st.RegTxErrCount != 0 || !(st.RegStatus & 0x08))
        return Fail("frame completed without errors", st.RegTxErrCount);
    for (double until = Now() + 5; Now() < until; usleep(50000)) {
        FILE* in = fopen(path, "r");
        double stamp = 0;
        int got = in && fgets(line, sizeof line, in) && sscanf(line, "(%lf) %63[^\n]", &stamp, want) == 2;
        if (in) fclose(in);
        if (!got) continue;
        if (strcmp(want, "sim0can0 7FF#DEADBEEF") != 0) return Fail(line, 0);
        return stamp > sent - 1 && stamp < sent + 1 ? 0 : Fail("wall-clock time of the line", stamp - sent);
    }
    return Fail("no line in the trace file", Now());
}

int main(int argc, char** argv) {
    g_t0 = 0;
    g_t0 = Now();
    setvbuf(stdout, NULL, _IONBF, 0);
    if (argc == 2 && strcmp(argv[1], "unplug") == 0) return Unplug();
    if (argc == 2 && strcmp(argv[1], "delay") == 0) return Delay();
    if (argc == 3 && strcmp(argv[1], "trace") == 0) return Trace(argv[2]);
    return Fail("usage: sim_faults unplug | delay | trace FILE", 0);
}

/*
 * vexlo extension interface: receive readiness and statistics, beside the VCI_* calls.
 *
 * Nothing here changes a VCI_* call. An application that never calls these functions pays nothing
 * for them: the readiness descriptor is made on first use, and the counters are plain stores on
 * the reception path.
 */
#ifndef VEXLO_EXT_H
#define VEXLO_EXT_H

#include "vexlo.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Counters of one channel, all counted from the open of the device. The caller sets `size` to
 * sizeof(VEXLO_STATS) of the header it was built with; the library fills only the fields that fit,
 * so fields can be added at the end without breaking older programs. A count never goes down. */
typedef struct {
    unsigned int size;               /* set by the caller: sizeof(VEXLO_STATS) */
    unsigned int queue_peak;         /* highest receive queue depth seen */
    unsigned long long rx_frames;    /* frames queued for the application */
    unsigned long long rx_lost;      /* frames lost because the receive queue was full */
    unsigned long long tx_frames;    /* frames the adapter accepted for transmission */
    unsigned long long bad_messages; /* malformed or overflowing messages thrown away by the
                                        device (a device-wide figure, the same for both channels) */
    unsigned long long notices[5];   /* notices received, by error code 1, 2, 4, 8 and 16 */
} VEXLO_STATS;

/* A file descriptor that polls readable (POLLIN) while the channel's receive queue holds at least
 * one frame, for poll, select or epoll beside the application's other descriptors. Made on the
 * first call (later calls return the same one); owned by the library and valid until the device
 * is closed, which also wakes a thread still waiting on it; never close or read it. It becomes
 * unreadable when VCI_Receive or VCI_ClearBuffer leaves the queue empty. A readable state may be
 * spurious (VCI_Receive then finds nothing, after its usual 10 ms pause: poll again); a frame is
 * never missed. Returns -1 for a bad index or channel, or a device that is not open. */
VEXLO_API int vexlo_receive_fd(unsigned int DevIndex, unsigned int CANIndex);

/* Fills `stats` (up to stats->size bytes) with the channel's counters; 1 on success, 0 on bad
 * arguments or a device that is not open. */
VEXLO_API unsigned int vexlo_get_stats(unsigned int DevIndex, unsigned int CANIndex, VEXLO_STATS* stats);

/* The library's version, for example "1.0.0". */
VEXLO_API const char* vexlo_version(void);

#ifdef __cplusplus
}
#endif

#endif /* VEXLO_EXT_H */

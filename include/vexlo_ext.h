/*
 * vexlo extension interface, beside the VCI_* calls: receive readiness, statistics, frames with
 * their host time, the adapter's rules (bit timing, acceptance filter), discovery, the reason of a
 * failed open, and where the library's log lines go.
 *
 * Nothing here changes a VCI_* call. An application that never calls these functions pays nothing
 * for them: the readiness descriptor is made on first use, and the counters are plain stores on
 * the reception path. The rule calls (bit timing, filters) are pure: they need no open adapter.
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
    unsigned long long unplugged;    /* 1 once the adapter was unplugged (a device-wide figure) */
} VEXLO_STATS;

/* A file descriptor that polls readable (POLLIN) while the channel's receive queue holds at least
 * one frame, for poll, select or epoll beside the application's other descriptors; also once the
 * adapter has been unplugged (for good), and, once vexlo_receive has been called on the channel,
 * while a notice waits for it (a program that only uses VCI_Receive never sees notices here).
 * Made on the first call (later calls return the same one); owned by the library: never close or
 * read it. It becomes unreadable when VCI_Receive, vexlo_receive or VCI_ClearBuffer leaves nothing
 * waiting. A readable state may be spurious (VCI_Receive then finds nothing, after its usual 10 ms
 * pause: poll again); a frame is never missed.
 * VCI_CloseDevice leaves it open and readable, so that a thread waiting on it in poll, select or
 * epoll wakes; the library closes it when the same device index is opened again, or when more than
 * 8 descriptors of closed devices are waiting to be closed (the oldest first). Take it out of your
 * epoll set once the device is closed.
 * Returns -1 for a bad index or channel, or a device that is not open. */
VEXLO_API int vexlo_receive_fd(unsigned int DevIndex, unsigned int CANIndex);

/* Fills `stats` (up to stats->size bytes, whole fields only) with the channel's counters; 1 on
 * success, 0 on bad arguments or a device that is not open. */
VEXLO_API unsigned int vexlo_get_stats(unsigned int DevIndex, unsigned int CANIndex, VEXLO_STATS* stats);

/* The library's version, for example "1.0.0". */
VEXLO_API const char* vexlo_version(void);

/* ---- Frames with their host time ------------------------------------------------------------ */

/* A received frame, or an adapter notice as an error frame, with the host time of its reception.
 * 40 bytes.
 *
 * Notices (and frames the library's receive queue had to drop) arrive in order among the frames
 * as error frames in the Linux CAN error-frame layout: frame.Id holds the error class, DataLength
 * is 8 and Data the details; ExtendedFrame and RemoteFrame are 0. The mapping:
 *   data overrun (code 1; also frames lost in a full receive queue):
 *                          class 0x004 (controller), Data[1] 0x01 (receive overflow)
 *   error warning (2):     class 0x004, Data[1] 0x0C (receive and transmit warning)
 *   error passive (4):     class 0x204 (controller, counters), Data[1] 0x30 (receive and transmit
 *                          passive), Data[6] transmit and Data[7] receive error counter
 *   arbitration lost (8):  class 0x002, Data[0] the bit position where it was lost
 *   bus error (16):        class 0x088 (protocol violation, bus error)
 * VCI_ReadErrInfo keeps its own record of notices, unaffected by this. */
typedef struct {
    CAN_OBJ frame;               /* a frame exactly as VCI_Receive gives it, or an error frame */
    unsigned int flags;          /* 0: a CAN frame; VEXLO_FRAME_ERROR: an error frame */
    unsigned int reserved;       /* 0 */
    unsigned long long host_us;  /* host time of reception, microseconds since the Epoch */
} VEXLO_FRAME;

#define VEXLO_FRAME_ERROR 1u

/* The result of vexlo_receive and vexlo_present once the adapter has been unplugged. */
#define VEXLO_GONE (-2)

/* Takes up to `count` frames from the channel's receive queue: the queue VCI_Receive takes from,
 * so a frame is taken by one call or the other, never both; readiness and statistics follow as
 * for VCI_Receive. Waits at most `wait_ms` milliseconds for a first frame (0: not at all; -1:
 * without limit), and wakes at once when a frame arrives or the adapter is unplugged.
 * Host times are taken where they are true: the reception path reads the host clock once per USB
 * completion and maps the adapter's own stamps onto it, so a frame's time is never later than the
 * completion that brought it, never decreases on a channel, stays right across the adapter
 * counter's wrap and days of silence, and frames of one completion keep the adapter's spacing.
 * (The one exception: when the host's clock is stepped back by more than a second, the times
 * start again from it.)
 * Error frames (see VEXLO_FRAME) come only through this call; once it has been called on a
 * channel, a notice also makes the readiness descriptor readable. Up to 64 notices wait per
 * channel; later ones are dropped, with a warning line, until the call takes them.
 * Returns the number of frames taken (0 when none came in time), VEXLO_GONE when the queue is
 * empty and the adapter has been unplugged, -1 for bad arguments or a device that is not open.
 * Like every call, it must not run while another thread closes the device: a program that waits
 * for frames while another thread may close polls vexlo_receive_fd and then calls this with 0. */
VEXLO_API int vexlo_receive(unsigned int DevIndex, unsigned int CANIndex, VEXLO_FRAME* frames, unsigned int count,
                            int wait_ms);

/* 1 while the device is open and its adapter plugged in, VEXLO_GONE once the adapter has been
 * unplugged (the device stays open until VCI_CloseDevice; the readiness descriptors of both
 * channels turn readable when the library learns of it), -1 for a device that is not open. */
VEXLO_API int vexlo_present(unsigned int DevIndex);

/* ---- Bit timing (the controller's 16 MHz clock) ------------------------------------------- */

/* The two bus timing bytes (BusTiming0 and BusTiming1 of CAN_INIT) for `bitrate` bit/s. The usual rates
 * keep the bytes every tool of the field uses for them (1M 00:14, 800k 00:16, 500k 00:1C, 250k
 * 01:1C, 125k 03:1C, 100k 04:1C, 50k 09:1C, 20k 18:1C, 10k 31:1C). Any other rate gets, among the
 * settings within 1% of it (bits of 8 to 25 quanta, at least 2 of them after the sample point), the
 * one whose sample point is nearest 87.5% (at most 87.5% and at least 75% above 800 kbit/s), then
 * the smallest rate error, then the most time quanta; sync jump width 1, one sample. Returns 1 with
 * the bytes set; 0 when no setting comes within 1%, and then *below and *above (either may be null)
 * get the nearest rates that work on either side: rates the controller reaches exactly, rounded to
 * the bit/s (0 where there is none; 950000 gives 888889 and 1000000). */
VEXLO_API int vexlo_timing_for_rate(unsigned int bitrate, unsigned char* btr0, unsigned char* btr1,
                                    unsigned int* below, unsigned int* above);

/* The bit rate (bit/s, rounded to the nearest) and the sample point (in tenths of a percent:
 * 875 is 87.5%) that two timing bytes give. Returns 1, or 0 when a pointer is null. */
VEXLO_API int vexlo_rate_for_timing(unsigned char btr0, unsigned char btr1, unsigned int* bitrate,
                                    unsigned int* sample_permille);

/* ---- Acceptance filters ---------------------------------------------------------------------- */

/* One receive filter. It matches a frame when (frame id & mask) == (id & mask) and the frame's
 * format and remote bit are as asked; an inverse filter passes exactly the frames it does not
 * match. A list passes a frame when it is empty or any one of its filters passes the frame. */
typedef struct {
    unsigned int id;        /* identifier, right-aligned (11 or 29 bits) */
    unsigned int mask;      /* identifier bits that must equal those of id; 0: any identifier */
    signed char extended;   /* 1: extended frames only, 0: standard frames only, -1: both */
    signed char remote;     /* 1: remote frames only, 0: data frames only, -1: both */
    unsigned char inverse;  /* 1: pass the frames that the filter does not match */
    unsigned char reserved; /* 0 */
} VEXLO_FILTER;

/* Sets AcceptCode, AcceptMask and FilterMode of *init (nothing else) to the controller's
 * acceptance filter that passes every frame the list passes: exactly those frames where the
 * controller can express the list, otherwise the tightest superset it can. "Tightest" is measured
 * over identifier, format and remote bit (data bytes are never filtered): the setting that lets
 * through the smallest fraction of the standard frames plus the smallest fraction of the extended
 * frames, summed. Returns 1 when the setting passes exactly the frames the list passes, 0 when it
 * passes more (check each received frame with vexlo_filter_pass), -1 for bad arguments. */
VEXLO_API int vexlo_filter_fit(const VEXLO_FILTER* filters, unsigned int count, CAN_INIT* init);

/* 1 when the list passes the frame (its identifier taken with its 11 or 29 bits), 0 when it does
 * not, -1 for bad arguments (a null frame, a null list with a count, extended or remote outside
 * -1..1, inverse above 1; vexlo_filter_fit refuses those lists too). */
VEXLO_API int vexlo_filter_pass(const VEXLO_FILTER* filters, unsigned int count, const CAN_OBJ* frame);

/* ---- Discovery and open errors --------------------------------------------------------------- */

/* The number of adapters present (USB 0471:1200), found without opening any, so an adapter in
 * use by another program is counted too; -1 when USB cannot be reached. */
VEXLO_API int vexlo_count(void);

/* Why the calling thread's last VCI_OpenDevice failed (VEXLO_OPEN_OK when it succeeded or when
 * the thread opened nothing yet), with a short text in *text when text is not null. */
enum {
    VEXLO_OPEN_OK = 0,
    VEXLO_OPEN_MISSING = 1, /* "no adapter at this position" */
    VEXLO_OPEN_BUSY = 2,    /* "in use by another program" */
    VEXLO_OPEN_DENIED = 3,  /* "no permission to use the adapter (the udev rule 70-vexlo.rules
                               gives it to the user at the seat and to the group plugdev)" */
    VEXLO_OPEN_FAILED = 4   /* "the adapter could not be opened" */
};
VEXLO_API int vexlo_open_error(const char** text);

/* ---- Where the log lines go ------------------------------------------------------------------ */

enum { VEXLO_LOG_DBG = 0, VEXLO_LOG_WRN = 1, VEXLO_LOG_ERR = 2 };

/* Receives each line the library would print, whole, without its line end: `level` is one of
 * VEXLO_LOG_*, `line` the text as it would be printed. Called on the thread that writes the line
 * (an application thread or an event thread), possibly several at once. */
typedef void (*vexlo_log_fn)(void* user, int level, const char* line);

/* Hands every line from now on to `fn` (with `user`) instead of standard output; null restores
 * standard output. Set it before opening a device: lines of other threads may still reach the
 * previous destination while it changes (the previous function with its own `user`, never a mix).
 * A line may be written while the library holds one of its locks, so from inside `fn` every call
 * that uses a device or USB (the VCI_* calls with a device index, VCI_OpenDevice,
 * VCI_CloseDevice, vexlo_receive, vexlo_receive_fd, vexlo_get_stats, vexlo_present, vexlo_count)
 * fails at once with its failure result and does nothing; the calls that need no device work
 * (VCI_Debug, vexlo_set_log, vexlo_version, vexlo_open_error, bit timing, filters). Lines of calls
 * made from inside `fn` are not written. */
VEXLO_API void vexlo_set_log(vexlo_log_fn fn, void* user);

#ifdef __cplusplus
}
#endif

#endif /* VEXLO_EXT_H */

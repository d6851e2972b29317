/*
 * vexlo-demo: the library's main job end to end. Opens adapter 0, shows its identity, starts both
 * channels at 1 Mbit/s, sends a numbered sequence of frames on channel 0, receives them on
 * channel 1 (the two channels share one bus), prints each one, then a summary and the channels'
 * status.
 *
 *   vexlo-demo [-n FRAMES] [-q] [-d MASK]
 *     -n FRAMES  frames to send (default 20)
 *     -q         print only the summary, not one line per frame
 *     -d MASK    diagnostic mask for the library (for example 0x1 or 0x21)
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include "vexlo.h"

#define TYPE 4
#define CARD 0

static double Seconds(void) {
    struct timeval tv;
    gettimeofday(&tv, NULL);
    return (double)tv.tv_sec + (double)tv.tv_usec / 1e6;
}

static void PrintFrame(const CAN_OBJ* f) {
    printf("ch1 %s %08x [%u] ", f->ExtendedFrame ? "ext" : "std", f->Id, f->DataLength);
    for (unsigned i = 0; i < f->DataLength && i < 8; ++i) printf("%02x ", f->Data[i]);
    printf(" ts=%u\n", f->TimeStamp);
}

static unsigned Sequence(const CAN_OBJ* f) {
    return (unsigned)f->Data[0] | (unsigned)f->Data[1] << 8 | (unsigned)f->Data[2] << 16 |
           (unsigned)f->Data[3] << 24;
}

int main(int argc, char** argv) {
    unsigned total = 20, quiet = 0, mask = 0;
    int opt;
    while ((opt = getopt(argc, argv, "n:qd:h")) != -1) {
        switch (opt) {
        case 'n': total = (unsigned)strtoul(optarg, NULL, 0); break;
        case 'q': quiet = 1; break;
        case 'd': mask = (unsigned)strtoul(optarg, NULL, 0); break;
        default:
            fprintf(stderr, "usage: %s [-n FRAMES] [-q] [-d MASK]\n", argv[0]);
            return opt == 'h' ? 0 : 2;
        }
    }
    VCI_Debug(mask);

    if (VCI_OpenDevice(TYPE, CARD, 0) != 1) {
        fprintf(stderr, "vexlo-demo: no adapter at index %d\n", CARD);
        return 1;
    }
    CAN_INFO info;
    memset(&info, 0, sizeof(info));
    if (VCI_ReadBoardInfo(TYPE, CARD, &info) == 1) {
        printf("adapter: %s, serial %s, hardware %04x, firmware %04x, %u channels\n", info.IdText, info.SerialNumber,
               info.HardwareVersion, info.FirmwareVersion, info.ChannelCount);
    }

    CAN_INIT init;
    memset(&init, 0, sizeof(init));
    init.AcceptMask = 0xFFFFFFFF; /* accept everything */
    init.FilterMode = 1;
    init.BusTiming0 = 0x00; /* 1 Mbit/s */
    init.BusTiming1 = 0x14;
    for (unsigned ch = 0; ch < 2; ++ch) {
        if (VCI_InitCAN(TYPE, CARD, ch, &init) != 1 || VCI_StartCAN(TYPE, CARD, ch) != 1) {
            fprintf(stderr, "vexlo-demo: channel %u did not start\n", ch);
            VCI_CloseDevice(TYPE, CARD);
            return 1;
        }
    }

    unsigned sent = 0, received = 0, lost = 0, wrong = 0;
    CAN_OBJ tx[32], rx[256];
    double start = Seconds();
    unsigned idle = 0;
    while (received + lost < total && idle < 200) {
        if (sent < total) {
            unsigned n = total - sent < 32 ? total - sent : 32;
            memset(tx, 0, sizeof(tx));
            for (unsigned i = 0; i < n; ++i) {
                unsigned seq = sent + i;
                tx[i].Id = 0x100 + (seq & 0xFF);
                tx[i].DataLength = 8;
                tx[i].Data[0] = (unsigned char)seq;
                tx[i].Data[1] = (unsigned char)(seq >> 8);
                tx[i].Data[2] = (unsigned char)(seq >> 16);
                tx[i].Data[3] = (unsigned char)(seq >> 24);
                tx[i].Data[4] = 0xCA;
                tx[i].Data[5] = 0xFE;
            }
            /* The adapter takes what fits in its transmit buffer; the rest is sent next round. */
            sent += VCI_Transmit(TYPE, CARD, 0, tx, n);
        }
        unsigned got = VCI_Receive(TYPE, CARD, 1, rx, 256, sent < total ? 0 : 50);
        idle = got ? 0 : idle + 1;
        for (unsigned i = 0; i < got; ++i) {
            unsigned seq = Sequence(&rx[i]);
            if (seq != received + lost) {
                if (seq > received + lost) lost += seq - (received + lost);
                else ++wrong;
            }
            ++received;
            if (!quiet) PrintFrame(&rx[i]);
        }
    }
    double secs = Seconds() - start;
    lost += total - (received + lost);

    CAN_STAT stat;
    for (unsigned ch = 0; ch < 2; ++ch) {
        if (VCI_ReadCANStatus(TYPE, CARD, ch, &stat) == 1) {
            printf("channel %u: status 0x%02x, rx errors %u, tx errors %u, bus load %u%%\n", ch, stat.RegStatus,
                   stat.RegRxErrCount, stat.RegTxErrCount, stat.CounterPercent);
        }
    }
    VCI_CloseDevice(TYPE, CARD);
    printf("frames: %u sent, %u received, %.0f frames/s, lost: %u, out of order: %u\n", sent, received,
           secs > 0 ? received / secs : 0.0, lost, wrong);
    return lost == 0 && wrong == 0 && received == total ? 0 : 1;
}

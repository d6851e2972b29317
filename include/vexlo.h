/*
 * vexlo: user-space driver for the two-channel USB-to-CAN adapter (USB 0471:1200).
 *
 * A flat C interface. Every call takes the device type, the device index and, where it addresses
 * a channel, the CAN channel (0 or 1); it returns 1 for success and 0 for failure, or a count for
 * the counting calls. Failures are reported on standard output as "vexlo: ERR:" lines; set the
 * diagnostic mask with VCI_Debug (or by writing gdbg) to trace the library's work.
 *
 * All records have fixed layouts in host byte order, so they can be shared with any language.
 */
#ifndef VEXLO_H
#define VEXLO_H

#if defined(VEXLO_BUILDING)
#define VEXLO_API __attribute__((visibility("default")))
#else
#define VEXLO_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* One CAN frame, sent by VCI_Transmit and returned by VCI_Receive. 24 bytes. */
typedef struct {
    unsigned int Id;              /* identifier, right-aligned: 11 bits standard, 29 extended */
    unsigned int TimeStamp;       /* adapter time stamp of a received frame */
    unsigned char TimeStampValid; /* 1 on every received frame */
    unsigned char TransmitMode;   /* passed to the adapter on transmit; 0 on received frames */
    unsigned char RemoteFrame;    /* 1: remote frame */
    unsigned char ExtendedFrame;  /* 1: 29-bit identifier */
    unsigned char DataLength;     /* data length code, 0 to 8 (received frames may carry up to 15) */
    unsigned char Data[8];        /* all eight bytes travel whatever DataLength says */
    unsigned char Reserved[3];    /* zero in received frames */
} CAN_OBJ;

/* Channel configuration for VCI_InitCAN. 16 bytes. */
typedef struct {
    unsigned int AcceptCode;   /* acceptance code, sent most significant byte first */
    unsigned int AcceptMask;   /* acceptance mask (bit set = don't care), most significant first */
    unsigned int Reserved;     /* not read */
    unsigned char FilterMode;  /* non-zero: single filter mode */
    unsigned char BusTiming0;  /* first bus timing byte (for example 0x00 for 1 Mbit/s) */
    unsigned char BusTiming1;  /* second bus timing byte (for example 0x14 for 1 Mbit/s) */
    unsigned char ListenOnly;  /* non-zero: listen-only mode */
} CAN_INIT;

/* Board information filled by VCI_ReadBoardInfo. The library writes offsets 0 to 45 only. */
typedef struct {
    unsigned short HardwareVersion;
    unsigned short FirmwareVersion;
    unsigned short DriverVersion;  /* always 0x0200 */
    unsigned short ApiVersion;     /* always 0x0200 */
    unsigned short IrqNumber;      /* always 0 */
    unsigned char ChannelCount;
    char SerialNumber[20];         /* zero-terminated, at most 14 characters */
    char IdText[40];               /* zero-terminated, at most 14 characters */
    unsigned char Reserved[4];
} CAN_INFO;

/* Channel status snapshot filled by VCI_ReadCANStatus. 12 bytes. */
typedef struct {
    unsigned char Reserved0;       /* always 0 */
    unsigned char RegMode;         /* controller register 0x00 */
    unsigned char RegStatus;       /* controller register 0x02 */
    unsigned char RegArbLost;      /* controller register 0x0B */
    unsigned char RegErrCode;      /* controller register 0x0C */
    unsigned char RegErrWarnLimit; /* controller register 0x0D */
    unsigned char RegRxErrCount;   /* controller register 0x0E */
    unsigned char RegTxErrCount;   /* controller register 0x0F */
    unsigned int CounterPercent;   /* first status counter as a percentage of both */
} CAN_STAT;

/* Latest error reported on a channel since the last VCI_ReadErrInfo. 8 bytes. */
typedef struct {
    unsigned int ErrorCode;        /* 0: nothing reported; else 1, 2, 4, 8 or 16 */
    unsigned char Code4Data[3];    /* data of the latest code-4 notice */
    unsigned char Code8Data;       /* data of the latest code-8 notice */
} CAN_ERR;

/* Diagnostic mask: 0x1 general traces, 0x2 transfers, 0x4 reception steps (with 0x1: VCI_Receive),
 * 0x8 with 0x1: IN time-outs, 0x10 raw packet dumps, 0x20 one line per frame. */
extern VEXLO_API unsigned int gdbg;

VEXLO_API unsigned int VCI_Debug(unsigned int mask);

VEXLO_API unsigned int VCI_OpenDevice(unsigned int DevType, unsigned int DevIndex, unsigned int Reserved);
VEXLO_API unsigned int VCI_CloseDevice(unsigned int DevType, unsigned int DevIndex);

VEXLO_API unsigned int VCI_InitCAN(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex,
                                   CAN_INIT* pInit);
VEXLO_API unsigned int VCI_StartCAN(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex);
VEXLO_API unsigned int VCI_ResetCAN(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex);

VEXLO_API unsigned int VCI_Transmit(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex,
                                    CAN_OBJ* pData, unsigned int Count);
VEXLO_API unsigned int VCI_Receive(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex,
                                   CAN_OBJ* pData, unsigned int Count, unsigned int WaitTime);
VEXLO_API unsigned int VCI_GetReceiveNum(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex);
VEXLO_API unsigned int VCI_ClearBuffer(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex);

VEXLO_API unsigned int VCI_ReadBoardInfo(unsigned int DevType, unsigned int DevIndex, CAN_INFO* pInfo);
VEXLO_API unsigned int VCI_ReadCANStatus(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex,
                                         CAN_STAT* pStatus);
VEXLO_API unsigned int VCI_GetReference(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex,
                                        unsigned int RefType, void* pData);
VEXLO_API unsigned int VCI_SetReference(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex,
                                        unsigned int RefType, void* pData);
VEXLO_API unsigned int VCI_ReadErrInfo(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex,
                                       CAN_ERR* pInfo);

#ifdef __cplusplus
}
#endif

#endif /* VEXLO_H */

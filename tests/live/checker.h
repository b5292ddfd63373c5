/* How a frame of a drill was treated when it left the switch. C and C++. */
#pragma once

#include <linux/types.h>

#define CHECKER_TREATMENTS_MAX 1024

/* In the source address of a drill's frames: the last byte is a mark, the fifth
 * one says which kind of sender it is. */
#define CHECKER_SENDER_OFFSET 10
#define CHECKER_MARK_OFFSET 11
#define CHECKER_MARK 0xd7

struct checker_treatment {
    __u8 sender;
    __u8 priority;
    __u16 vid; /* 0: no tag */
    __u8 dscp;
    __u8 unused[3];
};

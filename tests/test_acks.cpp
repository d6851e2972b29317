// Which exchange an answer on the command IN endpoint belongs to, driven with a clock of its own.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

#include "CanAcks.h"

// Steps at T ms, kinds and codes in hex (100: frame packets): "oK@T" an exchange of kind K gives
// up; "aK:C@T=W" an answer with code C comes while an exchange of kind K waits (W 1: its own);
// "cK@T=W" an exchange of kind K is about to send (W: the ms it may still have to wait, 0: now).
static const char* const kRows[] = {
    // An owed kind holds back its namesake only; a later exchange's answer settles those before it.
    "od@0 o100@10 ce@10=0 cd@10=4990 ae:2@20=0 cd@20=0 c100@20=0 od@30 ae:e@40=1 cd@40=0",
    "od@0 o100@0 ae:d@100=0 ad:2@100=0 ad:d@100=1",     // another kind never takes an owed answer
    "od@0 oe@0 a6:f@10=0 cd@10=0 ce@10=4990",           // nobody's answer: the oldest owed one's
    "od@1000 cd@5999=1 cd@6000=0 oe@1000 ae:e@6000=1",  // owed no more 5 s after giving up
};

TEST(Acks, AnswersGoToTheirOwnExchange) {
    for (const char* row : kRows) {
        CanAcks book;
        std::istringstream steps(row);
        for (std::string s; steps >> s;) {
            SCOPED_TRACE(std::string(row) + ": " + s);
            unsigned kind = 0, code = 0;
            unsigned long long at = 0, want = 0;
            const int n = s[0] == 'a' ? sscanf(s.c_str() + 1, "%x:%x@%llu=%llu", &kind, &code, &at, &want)
                                      : sscanf(s.c_str() + 1, "%x@%llu=%llu", &kind, &at, &want);
            ASSERT_GE(n, 2);
            const CanAcks::Ack ack = {{0x12, static_cast<U8>(code), 0x80, 0}, 4};
            switch (s[0]) {
            case 'o': book.Owe(kind, at); break;
            case 'c': EXPECT_EQ(book.Clear(kind, at), want); break;
            default: EXPECT_EQ(book.Judge(kind, ack, at) == CanAcks::kOurs, want == 1);
            }
        }
    }
}

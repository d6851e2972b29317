#include "Command.h"

#include <cstring>
#include <vector>

#include "CanFrameText.h"

namespace vexlo_serve {

XCommandReader::Status XCommandReader::Take(char c, std::string* command) {
    if (c == '<') {
        inside_ = true;
        text_.clear();
        return kNone;
    }
    if (!inside_) return kNone;
    if (c == '>') {
        inside_ = false;
        command->swap(text_);
        text_.clear();
        return kCommand;
    }
    if (text_.size() >= kMaxCommand) {
        inside_ = false;
        text_.clear();
        return kTooLong;
    }
    text_.push_back(c);
    return kNone;
}

namespace {

std::vector<std::string> Split(const std::string& text) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\r' || text[i] == '\n')) ++i;
        size_t start = i;
        while (i < text.size() && !(text[i] == ' ' || text[i] == '\t' || text[i] == '\r' || text[i] == '\n')) ++i;
        if (i > start) out.push_back(text.substr(start, i - start));
    }
    return out;
}

bool Hex(const std::string& t, size_t max_digits, unsigned* value) {
    if (t.empty() || t.size() > max_digits) return false;
    unsigned v = 0;
    for (char c : t) {
        int d = vexlo_tool::HexValue(c);
        if (d < 0) return false;
        v = v << 4 | static_cast<unsigned>(d);
    }
    *value = v;
    return true;
}

bool Decimal(const std::string& t, uint64_t max, uint64_t* value) {
    if (t.empty() || t.size() > 10) return false;
    uint64_t v = 0;
    for (char c : t) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + static_cast<uint64_t>(c - '0');
    }
    if (v > max) return false;
    *value = v;
    return true;
}

// An identifier: 8 hex digits make it extended (bits above 29 are flags some clients set, dropped).
// So does a shorter one above 7FF, which no standard frame can carry: python-can writes extended
// identifiers below 0x10000000 with fewer digits and would not notice an error reply.
bool Id(const std::string& t, unsigned* id, bool* extended, std::string* error) {
    unsigned v = 0;
    if (!Hex(t, 8, &v)) {
        *error = "bad identifier";
        return false;
    }
    *extended = t.size() == 8 || v > 0x7FF;
    *id = v & 0x1FFFFFFF;
    return true;
}

// LEN and LEN bytes from tokens[at...], exactly to the end.
bool Bytes(const std::vector<std::string>& tokens, size_t at, unsigned char* out, unsigned* len, std::string* error) {
    uint64_t n = 0;
    if (at >= tokens.size() || !Decimal(tokens[at], 8, &n)) {
        *error = "bad length (0 to 8)";
        return false;
    }
    if (tokens.size() - at - 1 != n) {
        *error = "the number of data bytes differs from the length";
        return false;
    }
    for (size_t i = 0; i < n; ++i) {
        unsigned b = 0;
        if (!Hex(tokens[at + 1 + i], 2, &b)) {
            *error = "bad data byte";
            return false;
        }
        out[i] = static_cast<unsigned char>(b);
    }
    *len = static_cast<unsigned>(n);
    return true;
}

// A decimal of the bus configuration commands: negative values, which leave a setting alone,
// give 0.
bool Setting(const std::string& t, unsigned* value) {
    uint64_t v = 0;
    if (!t.empty() && t[0] == '-') {
        if (!Decimal(t.substr(1), 0xFFFFFFFF, &v)) return false;
        *value = 0;
        return true;
    }
    if (!Decimal(t, 0xFFFFFFFF, &v)) return false;
    *value = static_cast<unsigned>(v);
    return true;
}

// "< BUS B bitrate sample_point tq prop_seg phase_seg1 phase_seg2 sjw brp >" or
// "< BUS C listen_only loopback three_samples >".
bool BusSetting(const std::vector<std::string>& t, XCommand* cmd, std::string* error) {
    bool timing = t[1] == "B";
    if (t.size() != (timing ? 10u : 5u)) {
        *error = "wrong number of arguments";
        return false;
    }
    if (t[0].size() > 16) {
        *error = "bus name longer than 16 characters";
        return false;
    }
    for (size_t i = 2; i < t.size(); ++i) {
        if (!Setting(t[i], &cmd->values[i - 2]) || (!timing && cmd->values[i - 2] > 1)) {
            *error = timing ? "bad bit timing value" : "bad mode value (0 or 1)";
            return false;
        }
    }
    cmd->kind = timing ? XCommand::kBusTiming : XCommand::kBusMode;
    cmd->bus = t[0];
    return true;
}

bool Interval(const std::vector<std::string>& tokens, uint64_t* us, std::string* error) {
    uint64_t sec = 0, usec = 0;
    if (!Decimal(tokens[1], 4000000, &sec) || !Decimal(tokens[2], 999999, &usec)) {
        *error = "bad interval";
        return false;
    }
    *us = sec * 1000000 + usec;
    return true;
}

bool Frame(const std::vector<std::string>& tokens, size_t at, bool remote, XCommand* cmd, std::string* error) {
    CAN_OBJ& f = cmd->frame;
    std::memset(&f, 0, sizeof(f));
    if (!Id(tokens[at], &cmd->id, &cmd->extended, error)) return false;
    f.Id = cmd->id;
    f.ExtendedFrame = cmd->extended ? 1 : 0;
    f.RemoteFrame = remote ? 1 : 0;
    unsigned len = 0;
    if (remote) {
        uint64_t n = 0;
        if (tokens.size() != at + 2 || !Decimal(tokens[at + 1], 8, &n)) {
            *error = "bad length (0 to 8)";
            return false;
        }
        len = static_cast<unsigned>(n);
    } else if (!Bytes(tokens, at + 1, f.Data, &len, error)) {
        return false;
    }
    f.DataLength = static_cast<unsigned char>(len);
    return true;
}

}  // namespace

bool ParseCommand(const std::string& text, XCommand* cmd, std::string* error) {
    std::vector<std::string> t = Split(text);
    *cmd = XCommand();
    std::memset(&cmd->frame, 0, sizeof(cmd->frame));
    if (t.empty()) {
        *error = "unknown command";
        return false;
    }
    const std::string& name = t[0];
    size_t n = t.size();
    struct Plain {
        const char* name;
        XCommand::Kind kind;
    };
    static const Plain kPlain[] = {{"rawmode", XCommand::kRawMode},         {"bcmmode", XCommand::kBcmMode},
                                   {"controlmode", XCommand::kControlMode}, {"isotpmode", XCommand::kIsotpMode},
                                   {"echo", XCommand::kEcho}};
    for (const Plain& p : kPlain) {
        if (name != p.name) continue;
        if (n != 1) {
            *error = "wrong number of arguments";
            return false;
        }
        cmd->kind = p.kind;
        return true;
    }
    // How many tokens each command takes, name included (0: variable, checked below).
    struct Shape {
        const char* name;
        XCommand::Kind kind;
        size_t tokens;
    };
    static const Shape kShapes[] = {{"open", XCommand::kOpen, 2},           {"send", XCommand::kSend, 0},
                                    {"sendrtr", XCommand::kSend, 3},        {"add", XCommand::kAdd, 0},
                                    {"update", XCommand::kUpdate, 0},       {"delete", XCommand::kDelete, 2},
                                    {"subscribe", XCommand::kSubscribe, 4}, {"unsubscribe", XCommand::kUnsubscribe, 2},
                                    {"filter", XCommand::kFilter, 0},       {"statistics", XCommand::kStatistics, 2},
                                    {"muxfilter", XCommand::kMuxFilter, 0}};
    const Shape* shape = nullptr;
    for (const Shape& s : kShapes)
        if (name == s.name) shape = &s;
    if (!shape) {
        if (name.compare(0, 4, "set_") == 0 || name == "bittiming") {
            cmd->kind = XCommand::kBitTiming;
            return true;
        }
        if (n >= 2 && (t[1] == "B" || t[1] == "C")) return BusSetting(t, cmd, error);
        *error = "unknown command";
        return false;
    }
    static const size_t kLeast[] = {2, 3, 3, 5, 3, 2, 4, 2, 5, 2, 5};  // fewest tokens, by kShapes order
    size_t least = kLeast[shape - kShapes];
    if ((shape->tokens && n != shape->tokens) || n < least) {
        *error = "wrong number of arguments";
        return false;
    }
    cmd->kind = shape->kind;
    switch (shape->kind) {
    case XCommand::kOpen:
        if (t[1].size() > 16) {
            *error = "bus name longer than 16 characters";
            return false;
        }
        cmd->bus = t[1];
        return true;
    case XCommand::kSend:
        return Frame(t, 1, name == "sendrtr", cmd, error);
    case XCommand::kUpdate:
        return Frame(t, 1, false, cmd, error);
    case XCommand::kAdd:
        return Interval(t, &cmd->interval_us, error) && Frame(t, 3, false, cmd, error);
    case XCommand::kDelete:
    case XCommand::kUnsubscribe:
        return Id(t[1], &cmd->id, &cmd->extended, error);
    case XCommand::kSubscribe:
        return Interval(t, &cmd->interval_us, error) && Id(t[3], &cmd->id, &cmd->extended, error);
    case XCommand::kFilter:
        return Interval(t, &cmd->interval_us, error) && Id(t[3], &cmd->id, &cmd->extended, error) &&
               Bytes(t, 4, cmd->mask, &cmd->mask_len, error);
    case XCommand::kMuxFilter: {
        uint64_t rows = 0;
        if (!Interval(t, &cmd->interval_us, error) || !Id(t[3], &cmd->id, &cmd->extended, error)) return false;
        if (!Decimal(t[4], 257, &rows) || rows < 2) {
            *error = "bad number of rows (2 to 257)";
            return false;
        }
        if (n - 5 != rows * 8) {
            *error = "the number of data bytes differs from 8 per row";
            return false;
        }
        cmd->rows.resize(n - 5);
        for (size_t i = 5; i < n; ++i) {
            unsigned b = 0;
            if (!Hex(t[i], 2, &b)) {
                *error = "bad data byte";
                return false;
            }
            cmd->rows[i - 5] = static_cast<unsigned char>(b);
        }
        return true;
    }
    case XCommand::kStatistics: {
        uint64_t ms = 0;
        if (!Decimal(t[1], 86400000, &ms)) {
            *error = "bad interval";
            return false;
        }
        cmd->ms = static_cast<unsigned>(ms);
        return true;
    }
    default:
        return true;
    }
}

}  // namespace vexlo_serve

#include "CanAccept.h"

#include <cmath>
#include <utility>
#include <vector>

namespace {

const U32 kStdIds = 0x7FF, kExtIds = 0x1FFFFFFF;
const U32 kStdKeys = 1u << 12;
enum { kStd = 0, kExt = 1 };

// A set of frame keys of one format: the keys k with (k & care) == val. A key is the identifier
// shifted left by one with the remote bit below it: 12 bits for standard frames, 30 for extended.
struct Cube {
    U32 val, care;
};

bool Contains(const Cube& outer, const Cube& inner) {
    return (outer.care & ~inner.care) == 0 && ((outer.val ^ inner.val) & outer.care) == 0;
}
bool Meets(const Cube& a, const Cube& b) { return ((a.val ^ b.val) & a.care & b.care) == 0; }
double Share(const Cube& c) { return std::ldexp(1.0, -__builtin_popcount(c.care)); }

// The smallest cube holding both.
Cube Bound(const Cube& a, const Cube& b) {
    U32 care = a.care & b.care & ~(a.val ^ b.val);
    return {a.val & care, care};
}

// True when the union of `by` holds every key of c. Splits c on a bit that a meeting cube cares
// about until each part lies in one cube; false also when the work passes *budget steps, which
// callers take as "not shown".
bool Covered(const Cube& c, const std::vector<Cube>& by, int* budget) {
    if (--*budget < 0) return false;
    U32 split = 0;
    for (const Cube& b : by) {
        if (Contains(b, c)) return true;
        if (!split && Meets(b, c)) split = b.care & ~c.care;
    }
    if (!split) return false;
    U32 bit = split & (~split + 1);
    return Covered({c.val, c.care | bit}, by, budget) && Covered({c.val | bit, c.care | bit}, by, budget);
}

// The cube of keys of format fmt that the filter matches; false when it matches none of them.
bool Matched(const VEXLO_FILTER& f, int fmt, Cube* c) {
    const U32 ids = fmt == kExt ? kExtIds : kStdIds;
    if (f.extended >= 0 && (f.extended != 0) != (fmt == kExt)) return false;
    if (f.id & f.mask & ~ids) return false;  // asks for identifier bits this format lacks
    c->care = (f.mask & ids) << 1;
    c->val = (f.id & f.mask & ids) << 1;
    if (f.remote >= 0) {
        c->care |= 1;
        c->val |= f.remote ? 1 : 0;
    }
    return true;
}

// Appends the keys of format fmt that the filter passes, as cubes: an inverse filter passes the
// keys that differ from its match in any one cared bit.
void Passed(const VEXLO_FILTER& f, int fmt, std::vector<Cube>* out) {
    Cube m;
    bool any = Matched(f, fmt, &m);
    if (!f.inverse) {
        if (any) out->push_back(m);
        return;
    }
    if (!any) {
        out->push_back({0, 0});
        return;
    }
    for (int i = 0; i < 32; ++i) {
        U32 b = 1u << i;
        if (m.care & b) out->push_back({~m.val & b, b});
    }
}

// What the list passes: cubes of each format (none inside another) and, for the 4096 standard
// keys, a table.
struct Wanted {
    std::vector<Cube> cubes[2];
    std::vector<bool> std;
};

void Gather(const VEXLO_FILTER* filters, U32 count, Wanted* w) {
    for (int fmt = kStd; fmt <= kExt; ++fmt) {
        std::vector<Cube> all;
        if (count == 0) all.push_back({0, 0});
        for (U32 i = 0; i < count; ++i) Passed(filters[i], fmt, &all);
        for (size_t i = 0; i < all.size(); ++i) {
            bool inside = false;
            for (size_t j = 0; j < all.size() && !inside; ++j)
                inside = j != i && Contains(all[j], all[i]) && (!Contains(all[i], all[j]) || j < i);
            if (!inside) w->cubes[fmt].push_back(all[i]);
        }
    }
    w->std.assign(kStdKeys, false);
    for (const Cube& c : w->cubes[kStd])
        for (U32 k = 0; k < kStdKeys; ++k)
            if ((k & c.care) == c.val) w->std[k] = true;
}

// How the setting takes the standard frame of key k: 0 never, 1 with any data bytes, 2 only with
// some. Remote frames carry no data bytes to compare.
int StdTakes(const CanAcceptSetting& s, U32 k) {
    const U32 care = ~s.mask;
    if (s.single) {
        if (((k << 20) ^ s.code) & care & 0xFFF00000u) return 0;
        return (k & 1) || !(care & 0x0000FFFFu) ? 1 : 2;
    }
    if ((((k << 4) ^ s.code) & care & 0x0000FFF0u) == 0) return 1;
    if (((k << 20) ^ s.code) & care & 0xFFF00000u) return 0;
    return (k & 1) || !(care & 0x000F000Fu) ? 1 : 2;
}

// The extended keys the setting takes, as one cube (single mode) or two (dual mode, ID.28-13).
std::vector<Cube> ExtTaken(const CanAcceptSetting& s) {
    const U32 care = ~s.mask;
    if (s.single) return {{(s.code & care) >> 2, care >> 2}};
    return {{((s.code & care) >> 16) << 14, (care >> 16) << 14},
            {((s.code & care) & 0xFFFF) << 14, (care & 0xFFFF) << 14}};
}

// A filter's share of the list in one mode: the bounding cube of its frames of each format, and
// whether it holds standard data frames.
struct Group {
    bool has[2] = {false, false};
    Cube bound[2] = {{0, 0}, {0, 0}};
    bool std_data = false;

    void Add(int fmt, const Cube& c) {
        bound[fmt] = has[fmt] ? Bound(bound[fmt], c) : c;
        has[fmt] = true;
        if (fmt == kStd && !((c.care & 1) && (c.val & 1))) std_data = true;
    }
    void Add(const Group& g) {
        for (int fmt = kStd; fmt <= kExt; ++fmt)
            if (g.has[fmt]) Add(fmt, g.bound[fmt]);
        std_data = std_data || g.std_data;
    }
    double Cost() const { return (has[kStd] ? Share(bound[kStd]) : 0) + (has[kExt] ? Share(bound[kExt]) : 0); }
};

// Where a format's key bits land in the 32 bits of code and mask, for one filter of a mode.
struct Slot {
    int fmt;
    int filter;
    U32 keys;   // the key bits compared
    int shift;  // image bit = key bit + shift
};
const Slot kSingleSlots[] = {{kStd, 0, 0xFFF, 20}, {kExt, 0, 0x3FFFFFFF, 2}};
const Slot kDualSlots[] = {
    {kStd, 0, 0xFFF, 20}, {kStd, 1, 0xFFF, 4}, {kExt, 0, 0x3FFFC000, 2}, {kExt, 1, 0x3FFFC000, -14}};
U32 Place(U32 keys, int shift) { return shift >= 0 ? keys << shift : keys >> -shift; }

// The setting of a mode for the two groups (in single mode the first only). A bit of the code is
// compared when every slot with frames that reads it wants it compared with one value, and when
// no slot with frames reads it; a slot without frames then follows the same format's slot of the
// other filter where it can (two filters that agree let fewer frames through). The data bits of
// the first filter stay free when it takes standard data frames: the list never asks for data.
// Settings built so are only candidates: Fitter::Try checks each against the list.
CanAcceptSetting Build(bool single, const Group g[2]) {
    U32 free = 0, want = 0, val = 0, clash = 0, soft = 0, softval = 0, softclash = 0;
    const Slot* slots = single ? kSingleSlots : kDualSlots;
    const size_t nslots = single ? 2 : 4;
    for (size_t i = 0; i < nslots; ++i) {
        const Slot& s = slots[i];
        const Group& own = g[s.filter];
        if (own.has[s.fmt]) {
            const Cube& b = own.bound[s.fmt];
            U32 care = Place(b.care & s.keys, s.shift), v = Place(b.val & s.keys, s.shift);
            free |= Place(s.keys & ~b.care, s.shift);
            clash |= want & care & (val ^ v);
            want |= care;
            val |= v;
        } else if (!single && g[1 - s.filter].has[s.fmt]) {
            const Cube& b = g[1 - s.filter].bound[s.fmt];
            U32 care = Place(b.care & s.keys, s.shift), v = Place(b.val & s.keys, s.shift);
            softclash |= soft & care & (softval ^ v);
            soft |= care;
            softval |= v;
        }
    }
    if (g[0].std_data) free |= single ? 0x0000FFFFu : 0x000F000Fu;
    U32 care = ~free & ~clash;
    U32 code = (val & want) | (softval & soft & ~softclash & ~want);
    return {code & care, ~care, single};
}

class Fitter {
public:
    explicit Fitter(const Wanted& w) : w_(w) {}

    // Keeps the setting when it passes every wanted frame and lets fewer others through than the
    // best so far.
    void Try(bool single, const Group g[2]) {
        CanAcceptSetting s = Build(single, g);
        double m = CanAcceptMeasure(s);
        if (found_ && m >= measure_) return;
        for (U32 k = 0; k < kStdKeys; ++k)
            if (w_.std[k] && StdTakes(s, k) != 1) return;
        std::vector<Cube> taken = ExtTaken(s);
        for (const Cube& c : w_.cubes[kExt]) {
            int budget = 4096;
            if (!Covered(c, taken, &budget)) return;
        }
        best_ = s;
        measure_ = m;
        found_ = true;
    }

    // True when the best setting takes nothing beyond the wanted frames.
    bool Exact() const {
        for (U32 k = 0; k < kStdKeys; ++k)
            if (!w_.std[k] && StdTakes(best_, k) != 0) return false;
        for (const Cube& c : ExtTaken(best_)) {
            int budget = 4096;
            if (!Covered(c, w_.cubes[kExt], &budget)) return false;
        }
        return true;
    }

    const Wanted& w_;
    CanAcceptSetting best_ = {0, 0xFFFFFFFFu, true};
    double measure_ = 2;
    bool found_ = false;
};

// Every split of the items into the two filters of dual mode, both ways round.
const size_t kSplitAll = 10;
// Above this many items, only the split by format; up to it, clusters grown from the closest.
const size_t kSplitGrow = 256;

void TrySplits(const std::vector<Group>& items, Fitter* fit) {
    const size_t n = items.size();
    if (n <= kSplitAll) {
        for (U32 pick = 0; pick < (1u << n); ++pick) {
            Group g[2];
            for (size_t i = 0; i < n; ++i) g[(pick >> i) & 1].Add(items[i]);
            fit->Try(false, g);
        }
        return;
    }
    Group byfmt[2];
    for (const Group& it : items) byfmt[it.has[kExt] ? 1 : 0].Add(it);
    fit->Try(false, byfmt);
    std::swap(byfmt[0], byfmt[1]);
    fit->Try(false, byfmt);
    if (n > kSplitGrow) return;
    // Merge the two clusters whose union costs least over their own costs, down to two.
    std::vector<Group> cl = items;
    while (cl.size() > 2) {
        size_t bi = 0, bj = 1;
        double best = 4;
        for (size_t i = 0; i < cl.size(); ++i) {
            for (size_t j = i + 1; j < cl.size(); ++j) {
                Group u = cl[i];
                u.Add(cl[j]);
                double d = u.Cost() - cl[i].Cost() - cl[j].Cost();
                if (d < best) {
                    best = d;
                    bi = i;
                    bj = j;
                }
            }
        }
        cl[bi].Add(cl[bj]);
        cl.erase(cl.begin() + static_cast<long>(bj));
    }
    fit->Try(false, cl.data());
    std::swap(cl[0], cl[1]);
    fit->Try(false, cl.data());
}

}  // namespace

bool CanFiltersValid(const VEXLO_FILTER* filters, U32 count) {
    if (count && !filters) return false;
    for (U32 i = 0; i < count; ++i) {
        const VEXLO_FILTER& f = filters[i];
        if (f.extended < -1 || f.extended > 1 || f.remote < -1 || f.remote > 1 || f.inverse > 1) return false;
    }
    return true;
}

bool CanFiltersPass(const VEXLO_FILTER* filters, U32 count, const CAN_OBJ& frame) {
    if (count == 0) return true;
    const int fmt = frame.ExtendedFrame ? kExt : kStd;
    const U32 key = ((frame.Id & (fmt == kExt ? kExtIds : kStdIds)) << 1) | (frame.RemoteFrame ? 1 : 0);
    for (U32 i = 0; i < count; ++i) {
        Cube m;
        bool match = Matched(filters[i], fmt, &m) && (key & m.care) == m.val;
        if (match != (filters[i].inverse != 0)) return true;
    }
    return false;
}

double CanAcceptMeasure(const CanAcceptSetting& s) {
    U32 taken = 0;
    for (U32 k = 0; k < kStdKeys; ++k) taken += StdTakes(s, k) != 0;
    std::vector<Cube> ext = ExtTaken(s);
    double share = Share(ext[0]);
    if (ext.size() == 2) {
        share += Share(ext[1]);
        if (Meets(ext[0], ext[1])) share -= std::ldexp(1.0, -__builtin_popcount(ext[0].care | ext[1].care));
    }
    return static_cast<double>(taken) / kStdKeys + share;
}

bool CanAcceptFit(const VEXLO_FILTER* filters, U32 count, CanAcceptSetting* out) {
    Wanted w;
    Gather(filters, count, &w);
    Fitter fit(w);
    std::vector<Group> items;
    Group all[2];
    for (int fmt = kStd; fmt <= kExt; ++fmt) {
        for (const Cube& c : w.cubes[fmt]) {
            Group it;
            it.Add(fmt, c);
            items.push_back(it);
            all[0].Add(it);
        }
    }
    fit.Try(true, all);
    TrySplits(items, &fit);
    *out = fit.best_;
    return fit.found_ && fit.Exact();
}

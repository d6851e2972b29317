// Network interfaces through rtnetlink (libmnl): look one up by name, create a vcan interface,
// bring one up, remove one. Each call is one request and its answer, on a socket of its own.
#pragma once

#include <string>

namespace vexlo_serve {

struct XLinkInfo {
    int index = 0;
    bool up = false;
    bool can = false;  // a CAN interface (ARPHRD_CAN): vcan, vxcan or a controller's
};

class XNetlink {
public:
    // The interface called `name`: true with *info filled; false with errno ENODEV when there is
    // none, or another errno when rtnetlink could not answer.
    static bool Find(const std::string& name, XLinkInfo* info);
    // Creates the vcan interface `name`, already up. False with errno: EPERM without
    // CAP_NET_ADMIN, EEXIST when the name is taken, EOPNOTSUPP when the kernel has no vcan.
    static bool CreateVcan(const std::string& name);
    static bool SetUp(int index);
    static bool Remove(int index);
};

}  // namespace vexlo_serve

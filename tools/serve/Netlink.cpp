#include "Netlink.h"

#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <vector>

namespace vexlo_serve {

namespace {

// Room for one request (a name and a kind), and for the answers to one.
const size_t kRequest = 512;
const size_t kAnswers = 8192;

// Sends the request in `nlh` (acknowledged) and runs `cb` on each answer until the
// acknowledgement; false with errno from the kernel's error answer or from the socket.
bool Request(nlmsghdr* nlh, mnl_cb_t cb, void* data) {
    mnl_socket* nl = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
    if (!nl) return false;
    bool ok = false;
    if (mnl_socket_bind(nl, 0, MNL_SOCKET_AUTOPID) == 0) {
        unsigned portid = mnl_socket_get_portid(nl);
        nlh->nlmsg_flags |= NLM_F_REQUEST | NLM_F_ACK;
        nlh->nlmsg_seq = 1;
        if (mnl_socket_sendto(nl, nlh, nlh->nlmsg_len) >= 0) {
            std::vector<char> buf(kAnswers);
            int ret = MNL_CB_OK;
            while (ret > MNL_CB_STOP) {
                ssize_t n = mnl_socket_recvfrom(nl, buf.data(), buf.size());
                ret = n < 0 ? MNL_CB_ERROR : mnl_cb_run(buf.data(), static_cast<size_t>(n), 1, portid, cb, data);
            }
            ok = ret == MNL_CB_STOP;
        }
    }
    int saved = errno;
    mnl_socket_close(nl);
    errno = saved;
    return ok;
}

nlmsghdr* LinkHeader(char* buf, uint16_t type, uint16_t flags, int index) {
    nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
    nlh->nlmsg_type = type;
    nlh->nlmsg_flags = flags;
    auto* ifm = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
    ifm->ifi_family = AF_UNSPEC;
    ifm->ifi_index = index;
    return nlh;
}

int TakeLink(const nlmsghdr* nlh, void* data) {
    if (nlh->nlmsg_type != RTM_NEWLINK) return MNL_CB_OK;
    const auto* ifm = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(nlh));
    auto* info = static_cast<XLinkInfo*>(data);
    info->index = ifm->ifi_index;
    info->up = (ifm->ifi_flags & IFF_UP) != 0;
    info->can = ifm->ifi_type == ARPHRD_CAN;
    return MNL_CB_OK;
}

}  // namespace

bool XNetlink::Find(const std::string& name, XLinkInfo* info) {
    if (name.empty() || name.size() >= IFNAMSIZ) return errno = ENODEV, false;
    alignas(nlmsghdr) char buf[kRequest];
    nlmsghdr* nlh = LinkHeader(buf, RTM_GETLINK, 0, 0);
    mnl_attr_put_strz(nlh, IFLA_IFNAME, name.c_str());
    *info = XLinkInfo();
    return Request(nlh, TakeLink, info) && info->index > 0;
}

bool XNetlink::CreateVcan(const std::string& name) {
    alignas(nlmsghdr) char buf[kRequest];
    nlmsghdr* nlh = LinkHeader(buf, RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL, 0);
    auto* ifm = static_cast<ifinfomsg*>(mnl_nlmsg_get_payload(nlh));
    ifm->ifi_flags = ifm->ifi_change = IFF_UP;
    mnl_attr_put_strz(nlh, IFLA_IFNAME, name.c_str());
    nlattr* linkinfo = mnl_attr_nest_start(nlh, IFLA_LINKINFO);
    mnl_attr_put_strz(nlh, IFLA_INFO_KIND, "vcan");
    mnl_attr_nest_end(nlh, linkinfo);
    return Request(nlh, nullptr, nullptr);
}

bool XNetlink::SetUp(int index) {
    alignas(nlmsghdr) char buf[kRequest];
    nlmsghdr* nlh = LinkHeader(buf, RTM_NEWLINK, 0, index);
    auto* ifm = static_cast<ifinfomsg*>(mnl_nlmsg_get_payload(nlh));
    ifm->ifi_flags = ifm->ifi_change = IFF_UP;
    return Request(nlh, nullptr, nullptr);
}

bool XNetlink::Remove(int index) {
    alignas(nlmsghdr) char buf[kRequest];
    return Request(LinkHeader(buf, RTM_DELLINK, 0, index), nullptr, nullptr);
}

}  // namespace vexlo_serve

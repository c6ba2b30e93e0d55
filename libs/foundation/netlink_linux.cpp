#include "foundation/netlink_linux.h"

#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "foundation/exception.h"

namespace fn::netlink {
namespace {

constexpr size_t RECEIVE_BUFFER = 64 * 1024;
constexpr int DUMP_TIMEOUT_MS = 2000;

// Reads a fixed header from possibly unaligned, possibly short bytes.
template <typename T>
bool read(uint8_t const* bytes, size_t size, T& out) {
  if (size < sizeof(T))
    return false;
  std::memcpy(&out, bytes, sizeof(T));
  return true;
}

// Calls `each(type, data, length)` for every attribute in the run; stops at the first one
// whose length does not fit.
template <typename Each>
void forEachAttribute(uint8_t const* bytes, size_t size, Each&& each) {
  while (size >= sizeof(rtattr)) {
    rtattr attribute;
    std::memcpy(&attribute, bytes, sizeof attribute);
    if (attribute.rta_len < sizeof(rtattr) || attribute.rta_len > size)
      return;
    each(attribute.rta_type & NLA_TYPE_MASK, bytes + RTA_LENGTH(0),
         static_cast<size_t>(attribute.rta_len - RTA_LENGTH(0)));
    size_t step = RTA_ALIGN(attribute.rta_len);
    if (step >= size)
      return;
    bytes += step;
    size -= step;
  }
}

void parseLink(uint8_t const* body, size_t size, Tables& into) {
  ifinfomsg header;
  if (!read(body, size, header))
    return;
  Link link{.index = header.ifi_index, .type = header.ifi_type, .flags = header.ifi_flags};
  size_t offset = NLMSG_ALIGN(sizeof header);
  if (offset > size)
    return;
  forEachAttribute(body + offset, size - offset, [&](int type, uint8_t const* data, size_t n) {
    if (type == IFLA_IFNAME)
      link.name = String(reinterpret_cast<char const*>(data),
                         strnlen(reinterpret_cast<char const*>(data), n));
  });
  into.links.push_back(std::move(link));
}

void parseAddress(uint8_t const* body, size_t size, Tables& into) {
  ifaddrmsg header;
  if (!read(body, size, header))
    return;
  Address address{.index = static_cast<int>(header.ifa_index), .family = header.ifa_family};
  ByteArray local, peer;
  size_t offset = NLMSG_ALIGN(sizeof header);
  if (offset > size)
    return;
  forEachAttribute(body + offset, size - offset, [&](int type, uint8_t const* data, size_t n) {
    if (type == IFA_LOCAL)
      local.assign(data, data + n);
    else if (type == IFA_ADDRESS)
      peer.assign(data, data + n);
  });
  // On a point-to-point link IFA_ADDRESS is the far end; IFA_LOCAL is always our own.
  address.bytes = local.empty() ? peer : local;
  if (!address.bytes.empty())
    into.addresses.push_back(std::move(address));
}

void parseNexthops(uint8_t const* data, size_t size, Route& route) {
  while (size >= sizeof(rtnexthop)) {
    rtnexthop hop;
    std::memcpy(&hop, data, sizeof hop);
    if (hop.rtnh_len < sizeof(rtnexthop) || hop.rtnh_len > size)
      return;
    Nexthop next{.index = hop.rtnh_ifindex};
    size_t inner = RTNH_ALIGN(sizeof(rtnexthop));
    if (inner <= hop.rtnh_len) {
      forEachAttribute(data + inner, hop.rtnh_len - inner,
                       [&](int type, uint8_t const* value, size_t n) {
                         if (type == RTA_GATEWAY)
                           next.gateway.assign(value, value + n);
                       });
    }
    route.nexthops.push_back(std::move(next));
    size_t step = RTNH_ALIGN(hop.rtnh_len);
    if (step >= size)
      return;
    data += step;
    size -= step;
  }
}

void parseRoute(uint8_t const* body, size_t size, Tables& into) {
  rtmsg header;
  if (!read(body, size, header))
    return;
  Route route{.family = header.rtm_family,
              .table = header.rtm_table,
              .type = header.rtm_type,
              .dstLength = header.rtm_dst_len};
  Nexthop single;
  bool multipath = false;
  size_t offset = NLMSG_ALIGN(sizeof header);
  if (offset > size)
    return;
  forEachAttribute(body + offset, size - offset, [&](int type, uint8_t const* data, size_t n) {
    if (type == RTA_TABLE && n >= 4) {
      uint32_t table;
      std::memcpy(&table, data, 4);
      route.table = table;
    } else if (type == RTA_OIF && n >= 4) {
      std::memcpy(&single.index, data, 4);
    } else if (type == RTA_GATEWAY) {
      single.gateway.assign(data, data + n);
    } else if (type == RTA_MULTIPATH) {
      multipath = true;
      parseNexthops(data, n, route);
    }
  });
  if (!multipath)
    route.nexthops.push_back(std::move(single));
  into.routes.push_back(std::move(route));
}

void parseNeighbour(uint8_t const* body, size_t size, Tables& into) {
  ndmsg header;
  if (!read(body, size, header))
    return;
  Neighbour neighbour{
      .index = header.ndm_ifindex, .family = header.ndm_family, .state = header.ndm_state};
  size_t offset = NLMSG_ALIGN(sizeof header);
  if (offset > size)
    return;
  forEachAttribute(body + offset, size - offset, [&](int type, uint8_t const* data, size_t n) {
    if (type == NDA_DST)
      neighbour.address.assign(data, data + n);
    else if (type == NDA_LLADDR)
      neighbour.linkAddress.assign(data, data + n);
  });
  if (!neighbour.address.empty())
    into.neighbours.push_back(std::move(neighbour));
}

}  // namespace

void parse(uint8_t const* bytes, size_t size, Tables& into) {
  while (size >= sizeof(nlmsghdr)) {
    nlmsghdr header;
    std::memcpy(&header, bytes, sizeof header);
    if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > size)
      return;
    uint8_t const* body = bytes + NLMSG_HDRLEN;
    size_t length = header.nlmsg_len - NLMSG_HDRLEN;
    switch (header.nlmsg_type) {
      case NLMSG_DONE:
        into.done = true;
        return;
      case NLMSG_ERROR: {
        nlmsgerr error;
        if (read(body, length, error) && error.error != 0)
          into.error = -error.error;
        else if (length >= sizeof(int))
          into.done = true;  // an acknowledgement
        return;
      }
      case RTM_NEWLINK:
        parseLink(body, length, into);
        break;
      case RTM_NEWADDR:
        parseAddress(body, length, into);
        break;
      case RTM_NEWROUTE:
        parseRoute(body, length, into);
        break;
      case RTM_NEWNEIGH:
        parseNeighbour(body, length, into);
        break;
      default:
        break;
    }
    size_t step = NLMSG_ALIGN(header.nlmsg_len);
    if (step >= size)
      return;
    bytes += step;
    size -= step;
  }
}

Socket::Socket(unsigned groups) {
  _fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (_fd < 0)
    throw withErrno(IOException("Cannot open a netlink socket"), errno);
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups = groups;
  if (::bind(_fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    int error = errno;
    ::close(_fd);
    throw withErrno(IOException("Cannot bind a netlink socket"), error);
  }
}

Socket::~Socket() {
  if (_fd >= 0)
    ::close(_fd);
}

Tables Socket::dump(int type, int family) {
  struct {
    nlmsghdr header;
    rtgenmsg body;
  } request{};
  request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtgenmsg));
  request.header.nlmsg_type = static_cast<uint16_t>(type);
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = ++_sequence;
  request.body.rtgen_family = static_cast<unsigned char>(family);
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(_fd, &request, request.header.nlmsg_len, 0, reinterpret_cast<sockaddr*>(&kernel),
               sizeof kernel) < 0)
    throw withErrno(IOException("Cannot send a netlink request"), errno);

  Tables tables;
  ByteArray buffer(RECEIVE_BUFFER);
  while (!tables.done && !tables.error) {
    ssize_t n = ::recv(_fd, buffer.data(), buffer.size(), 0);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      pollfd waiting{.fd = _fd, .events = POLLIN, .revents = 0};
      if (::poll(&waiting, 1, DUMP_TIMEOUT_MS) <= 0)
        throw IOException("The kernel did not answer a netlink request");
      continue;
    }
    if (n <= 0)
      throw withErrno(IOException("Cannot read a netlink answer"), n < 0 ? errno : EPIPE);
    // Messages of other requests (notifications on a subscribed socket) are left out.
    Tables part;
    uint8_t const* at = buffer.data();
    size_t left = static_cast<size_t>(n);
    nlmsghdr first;
    if (read(at, left, first) && first.nlmsg_seq != _sequence)
      continue;
    parse(at, left, part);
    for (auto& v : part.links)
      tables.links.push_back(std::move(v));
    for (auto& v : part.addresses)
      tables.addresses.push_back(std::move(v));
    for (auto& v : part.routes)
      tables.routes.push_back(std::move(v));
    for (auto& v : part.neighbours)
      tables.neighbours.push_back(std::move(v));
    tables.done = part.done;
    tables.error = part.error;
  }
  if (tables.error)
    throw withErrno(IOException("The kernel refused a netlink request"), *tables.error);
  return tables;
}

bool Socket::drain() {
  uint8_t buffer[8192];
  for (;;) {
    ssize_t n = ::recv(_fd, buffer, sizeof buffer, 0);
    if (n > 0)
      continue;
    if (n < 0 && errno == EINTR)
      continue;
    // ENOBUFS: notifications were lost; the listener recomputes everything anyway.
    return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS);
  }
}

}  // namespace fn::netlink

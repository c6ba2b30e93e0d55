#pragma once

// rtnetlink, the kernel's interface to links, addresses, routes and neighbours: a socket that
// dumps those tables, and the parser that turns the kernel's messages into plain records.
//
// The parser takes the bytes as untrusted: a message or attribute whose length points outside
// the buffer ends the parse of that buffer, a record missing what it needs is skipped, and
// nothing is kept beyond the records themselves.

#include <cstdint>
#include <optional>
#include <vector>

#include "foundation/byte_array.h"
#include "foundation/export.h"
#include "foundation/string.h"

namespace fn::netlink {

struct Link {
  int index = 0;
  /// ARPHRD_* of the link layer.
  unsigned type = 0;
  unsigned flags = 0;
  String name{};
};

struct Address {
  int index = 0;
  /// AF_INET or AF_INET6.
  int family = 0;
  /// The interface's own address (IFA_LOCAL, else IFA_ADDRESS).
  ByteArray bytes{};
};

struct Nexthop {
  int index = 0;
  ByteArray gateway{};
};

struct Route {
  int family = 0;
  unsigned table = 0;
  unsigned type = 0;
  unsigned dstLength = 0;
  /// One entry for a plain route, one per path for a multipath route.
  std::vector<Nexthop> nexthops{};
};

struct Neighbour {
  int index = 0;
  int family = 0;
  ByteArray address{};
  ByteArray linkAddress{};
  /// NUD_* flags.
  unsigned state = 0;
};

/// What a run of messages describes, in the kernel's order.
struct Tables {
  std::vector<Link> links;
  std::vector<Address> addresses;
  std::vector<Route> routes;
  std::vector<Neighbour> neighbours;
  /// NLMSG_DONE was seen.
  bool done = false;
  /// The errno of an NLMSG_ERROR that reported one.
  std::optional<int> error;
};

/// Appends what the messages in `bytes` describe to `into`.
FN_EXPORT void parse(uint8_t const* bytes, size_t size, Tables& into);

/// A NETLINK_ROUTE socket. Subscribed to `groups` (RTMGRP_* bits) when given; the descriptor is
/// non-blocking and close-on-exec. Belongs to one thread.
class FN_EXPORT Socket {
public:
  explicit Socket(unsigned groups = 0);
  ~Socket();
  Socket(Socket const&) = delete;
  Socket& operator=(Socket const&) = delete;

  int fd() const { return _fd; }

  /// Dumps one table (RTM_GETLINK, RTM_GETADDR, RTM_GETROUTE, RTM_GETNEIGH) for `family`.
  /// IOException when the kernel refuses or the socket fails.
  Tables dump(int type, int family);

  /// Reads and discards every message waiting (notifications); false when the socket failed.
  bool drain();

private:
  int _fd = -1;
  uint32_t _sequence = 0;
};

}  // namespace fn::netlink

#pragma once

#include "hosts/common/handshake.h"
#include "hosts/common/owners.h"

namespace hosts {

/// Who deals with the requests under a key.
enum class Server { Service, CommandLine };

/// Tells the other hosts, for as long as it lives, that this process deals with the requests under a key. It
/// goes with the process, however that ends.
class ServingNotice {
 public:
  ServingNotice(Server server, const HandshakeKey& key);

  /// Whether another one of the same kind has given the same notice before.
  bool HasPredecessor() const { return m_HasPredecessor; }

 private:
  OwnedHandle m_Mutex;
  bool m_HasPredecessor = false;
};

/// Tells the other hosts, for as long as it lives, that the service which deals with the requests under a key
/// is kept from it by another program.
class HinderedNotice {
 public:
  explicit HinderedNotice(const HandshakeKey& key);

 private:
  OwnedHandle m_Mutex;
};

/// Whether such a host lives and deals with the requests under the key.
bool IsServedBy(Server server, const HandshakeKey& key);
/// Whether the service that deals with them says that it is kept from it.
bool IsServiceHindered(const HandshakeKey& key);
/// Whether the host that wrote what stands under the key can still be at work on it.
Writer WriterOf(const HandshakeKey& key);

}  // namespace hosts

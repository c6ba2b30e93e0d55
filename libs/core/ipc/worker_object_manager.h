#pragma once

// The object bookkeeping of one worker: the instances it owns, the one reference it holds per
// remote object, the reference classes it can build, and the translation of payloads between
// values that hold objects and MessagePack bytes that hold object ids.
//
// Entries are weak: instances and references register and unregister themselves. Loop thread
// only.

#include <functional>
#include <map>
#include <unordered_map>

#include "core/export.h"
#include "core/ipc/message.h"
#include "foundation/byte_array.h"
#include "foundation/function_ref.h"
#include "foundation/mpack.h"
#include "foundation/object.h"
#include "foundation/value.h"

namespace ipc {

class Worker;
class ObjectInstance;
class ObjectReference;
struct ObjectReferenceInitializer;

class CORE_EXPORT WorkerObjectManager {
public:
  using ReferenceCreator = std::function<fn::AutoPtr<ObjectReference>(ObjectReferenceInitializer&)>;

  explicit WorkerObjectManager(Worker& worker);

  uint64_t takeCounter() { return _counter++; }

  void registerInstance(ObjectInstance* instance);
  void unregisterInstance(ObjectInstance* instance);
  void registerReference(ObjectReference* reference);
  /// True when `reference` was the registered one (and is now removed).
  bool unregisterReference(ObjectReference* reference);

  /// A strong reference to a live instance or reference of this worker, or null.
  fn::AutoPtr<ObjectInstance> instance(ObjectId id) const;
  fn::AutoPtr<ObjectReference> reference(ObjectId id) const;

  /// Maps `className` to a creator of references of that class.
  void registerReferenceClass(fn::String const& className, ReferenceCreator creator);

  /// Writes a payload straight into an encoder, for senders that know its layout and need not
  /// build a value; the objects in it go through the serializer it is given.
  using PayloadWriter = fn::FunctionRef<void(fn::mpack::Encoder&, fn::mpack::ValueSerializer&)>;

  /// Encodes `payload` into `bytes`, listing every distinct object in `objects` (id to class
  /// name; a null `objects` becomes a map at the first object and stays null without one).
  void encodePayload(fn::Value const& payload, fn::ByteArray& bytes, fn::Value& objects);
  void encodePayload(PayloadWriter write, fn::ByteArray& bytes, fn::Value& objects);
  /// Decodes a payload, resolving object ids to local references or held (or new) remote
  /// references, then counts one use per listed object for the remote references held. Into
  /// `out`, whose room is reused.
  void decodePayload(fn::ByteView bytes, fn::Value const& objects, fn::Value& out);

  /// Marks every reference to an object of `workerId` dead, then notifies each once.
  void workerDied(uint16_t workerId);
  /// Gives up every use the hub counted on our instances (the hub is gone and will never
  /// release them), so that only local holders keep them alive.
  void dropRemoteUses();
  /// Marks every remote reference dead (the hub is gone), then notifies each once.
  void allWorkersDied();
  /// Marks every reference dead, local ones too (the worker itself goes away): their open
  /// calls fail, which frees the references those calls keep alive.
  void abandonAll();

  /// Busy: some owned instance is still used remotely, apart from the registry's one use.
  bool busy(std::function<bool(ObjectId)> const& registeredInRegistry) const;

  size_t instanceCount() const { return _instances.size(); }
  size_t referenceCount() const { return _references.size(); }

private:
  fn::AutoPtr<ObjectReference> createReference(ObjectId id, fn::String const& className);
  void killReferences(std::function<bool(ObjectId)> const& matches, bool includeLocal = false);

  Worker& _worker;
  uint64_t _counter = 0;
  std::map<ObjectId, ObjectInstance*> _instances;
  std::map<ObjectId, ObjectReference*> _references;
  std::unordered_map<fn::String, ReferenceCreator> _referenceClasses;
};

}  // namespace ipc

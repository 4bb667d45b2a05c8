#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <set>

#include "Platform/RunLoops/DelayedCalls.h"
#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// Work that is done one piece in each turn of a loop, so that others are served in between. A piece
// that waits under a key stands for all that are added under this key meanwhile, so that the number
// of pieces is bounded by the number of keys. Belongs to the loop's thread; pieces that have not
// run when this is destroyed never run.
class TurnQueue {
 public:
  using Callback = RunLoop::Callback;
  using Key = DelayedCalls::Key;

  // `loop` outlives this. `onEmpty` is called after the last piece that waits, in the same turn.
  explicit TurnQueue(RunLoop& loop, Callback onEmpty = {})
      : loop_(loop), onEmpty_(std::move(onEmpty)) {}

  // Runs `call` in a later turn, after those that wait already. Nothing is added if one with this
  // key waits.
  void add(Key key, Callback call);
  // The same without a key.
  void add(Callback call);

  std::size_t waiting() const { return pieces_.size(); }

 private:
  struct Piece {
    Key key;
    bool hasKey;
    Callback call;
  };
  void append(Piece piece);
  void awaitTurn();
  void runNext();

  RunLoop& loop_;
  Callback onEmpty_;
  std::list<Piece> pieces_;
  std::set<Key> keys_;
  std::unique_ptr<RunLoopHandle> turn_;
};

}  // namespace platform

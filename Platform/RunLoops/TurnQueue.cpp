#include "Platform/RunLoops/TurnQueue.h"

#include <utility>

namespace platform {

void TurnQueue::add(Key key, Callback call) {
  if (!keys_.insert(key).second) return;
  append({std::move(key), true, std::move(call)});
}

void TurnQueue::add(Callback call) { append({{}, false, std::move(call)}); }

void TurnQueue::append(Piece piece) {
  pieces_.push_back(std::move(piece));
  if (!turn_) awaitTurn();
}

// A timer ends with this object; a post would not.
void TurnQueue::awaitTurn() {
  turn_ = loop_.startTimer({}, RunLoop::Repeat::kOnce, [this] { runNext(); });
}

void TurnQueue::runNext() {
  Piece piece = std::move(pieces_.front());
  pieces_.pop_front();
  // The piece no longer stands for others: what is asked for from now on may differ.
  if (piece.hasKey) keys_.erase(piece.key);
  turn_ = nullptr;
  if (!pieces_.empty()) awaitTurn();
  piece.call();
  if (pieces_.empty() && onEmpty_) onEmpty_();
}

}  // namespace platform

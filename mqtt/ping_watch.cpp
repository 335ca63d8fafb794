#include "mqtt/ping_watch.h"

#include <algorithm>
#include <utility>

namespace zeb::mqtt {

void PingWatch::EndReported(bool answered) {
  caller_reports_ = false;
  ping_sent_ = 0;
  pong_recv_ = 0;
  gave_up_ = !answered;
}

// An unanswered PINGREQ keeps its older stamp. With a keep-alive shorter than the time-out a broker that has
// died would otherwise never be late.
PingWatch::Judgement PingWatch::Sending(int64_t now_us, int64_t limit_us) {
  Judgement judgement;
  if (ping_sent_ != 0 && ping_sent_ < pong_recv_) judgement = JudgeAnswer(limit_us);
  if (!judgement.healthy()) was_late_ = true;
  if (ping_sent_ == 0) ping_sent_ = now_us;
  gave_up_ = false;
  ++unanswered_;
  return judgement;
}

// When two pings overlap, the first answer settles both. The second answer, which the broker still owes, must
// not be taken for the answer to a later ping. An answer that nobody asked for stays on record, and so does
// the one that a caller gave up on.
void PingWatch::Received(int64_t now_us) {
  const bool owed = unanswered_ > 0;
  if (owed) --unanswered_;
  if (ping_sent_ != 0) {
    pong_recv_ = owed ? std::max(now_us, ping_sent_ + 1) : now_us;
  } else if (!owed || gave_up_) {
    pong_recv_ = now_us;
  }
}

PingWatch::Judgement PingWatch::Judge(int64_t now_us, int64_t limit_us) {
  if (std::exchange(was_late_, false)) return {Verdict::kLateBefore};
  if (ping_sent_ == 0) return {};
  if (ping_sent_ < pong_recv_) return JudgeAnswer(limit_us);
  if (pong_recv_ >= 1) return {Verdict::kUnordered};
  const bool overdue = now_us - ping_sent_ > limit_us;
  return {overdue && !caller_reports_ ? Verdict::kMissing : Verdict::kNothingToJudge};
}

PingWatch::Judgement PingWatch::JudgeAnswer(int64_t limit_us) {
  const bool in_time = pong_recv_ - ping_sent_ <= limit_us;
  return {in_time ? Verdict::kInTime : Verdict::kLate, std::exchange(ping_sent_, 0),
          std::exchange(pong_recv_, 0)};
}

}  // namespace zeb::mqtt

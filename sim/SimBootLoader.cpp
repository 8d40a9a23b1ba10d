// The boot loader's dialogue, driven by the bytes that arrive and by idle gaps on the line.
#include "SimBootLoader.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "SimFrame.h"
#include "protocol/Codec.h"
#include "protocol/ServiceTable.h"

namespace tamrik::sim {

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint8_t kWake = 0x00;
constexpr uint8_t kRecordStart = ':';
// The longest the thread sleeps without looking at the stop request or an idle gap.
constexpr int kPollSliceMs = 50;

void CloseFd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

}  // namespace

SimBootLoader::SimBootLoader(BootLoaderConfig config) : config_(std::move(config)) {
  phase_ = config_.stages ? Phase::Wake : Phase::StartFrame;
  termios raw{};
  cfmakeraw(&raw);
  int master = -1;
  int slave = -1;
  if (::openpty(&master, &slave, nullptr, &raw, nullptr) != 0) return;
  char name[128] = {};
  if (::ptsname_r(master, name, sizeof name) != 0 || ::pipe2(wakePipe_, O_CLOEXEC) != 0) {
    ::close(master);
    ::close(slave);
    CloseFd(wakePipe_[0]);
    CloseFd(wakePipe_[1]);
    return;
  }
  ::fcntl(master, F_SETFD, FD_CLOEXEC);
  ::fcntl(slave, F_SETFD, FD_CLOEXEC);
  ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
  master_ = master;
  // Held open for the loader's whole life: the driver may open and close the line as often
  // as it likes without the master ever seeing a hang-up, and what the loader sends while
  // the line is closed waits in the input queue as it would on a real port.
  slave_ = slave;
  slavePath_ = name;
  thread_ = std::thread([this] { Run(); });
}

SimBootLoader::~SimBootLoader() {
  if (thread_.joinable()) {
    const char stop = 1;
    (void)!::write(wakePipe_[1], &stop, 1);
    thread_.join();
  }
  CloseFd(wakePipe_[0]);
  CloseFd(wakePipe_[1]);
  CloseFd(master_);
  CloseFd(slave_);
}

void SimBootLoader::Run() {
  Clock::time_point lastByte = Clock::now();
  while (true) {
    int waitMs = kPollSliceMs;
    if (!pending_.empty()) {
      const auto gapEnd = lastByte + config_.idleGap;
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(gapEnd - Clock::now()).count();
      waitMs = int(std::clamp<int64_t>(left + 1, 0, kPollSliceMs));
    }
    pollfd fds[2] = {{master_, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
    const int ready = ::poll(fds, 2, waitMs);
    if (ready < 0 && errno != EINTR) return;
    if (ready > 0 && fds[1].revents != 0) return;
    bool received = false;
    if (ready > 0 && (fds[0].revents & POLLIN) != 0) {
      uint8_t chunk[4096];
      const ssize_t n = ::read(master_, chunk, sizeof chunk);
      if (n > 0) {
        pending_.insert(pending_.end(), chunk, chunk + n);
        lastByte = Clock::now();
        received = true;
      }
    }
    const bool idle = !received && Clock::now() - lastByte >= config_.idleGap;
    Process(idle);
  }
}

// Takes the stage's bytes from what is pending: by count when the stage has one, else all
// of it once the line has gone idle.
bool SimBootLoader::TakeStage(bool idle, std::optional<size_t> length, std::vector<uint8_t>* out) {
  if (length) {
    if (pending_.size() < *length) return false;
    out->assign(pending_.begin(), pending_.begin() + std::ptrdiff_t(*length));
    pending_.erase(pending_.begin(), pending_.begin() + std::ptrdiff_t(*length));
    return true;
  }
  if (pending_.empty() || !idle) return false;
  out->swap(pending_);
  pending_.clear();
  return true;
}

void SimBootLoader::Process(bool idle) {
  // One read can carry the end of one stage and the start of the next: step on while steps
  // complete.
  while (Step(idle)) {
  }
}

bool SimBootLoader::Step(bool idle) {
  switch (phase_) {
    case Phase::Wake: return TakeWake();
    case Phase::Stage1:
    case Phase::Stage2:
    case Phase::Stage3: return TakeStagePhase(idle);
    case Phase::StartFrame: return TakeStartFrame();
    case Phase::Records: return TakeRecord(idle);
  }
  return false;
}

bool SimBootLoader::TakeWake() {
  if (pending_.empty()) return false;
  DropStray(std::find(pending_.begin(), pending_.end(), kWake));
  if (pending_.empty()) return false;
  {
    std::lock_guard lock(mutex_);
    ++wakeBytes_;
  }
  pending_.erase(pending_.begin());
  BeginDownload();
  Send(config_.ident);
  phase_ = Phase::Stage1;
  return true;
}

bool SimBootLoader::TakeStagePhase(bool idle) {
  const int index = phase_ == Phase::Stage1 ? 0 : phase_ == Phase::Stage2 ? 1 : 2;
  const std::optional<size_t> lengths[3] = {config_.stage1Length, config_.stage2Length, config_.stage3Length};
  if (WakeAgain(idle, lengths[index])) {
    phase_ = Phase::Wake;
    return true;
  }
  std::vector<uint8_t> bytes;
  if (!TakeStage(idle, lengths[index], &bytes)) return false;
  Notify({.kind = BootEvent::Kind::Stage, .stage = index + 1, .bytes = &bytes});
  {
    std::lock_guard lock(mutex_);
    stages_[index] = std::move(bytes);
  }
  changed_.notify_all();
  AnswerStage();
  return true;
}

// The answer to the stage just taken, and the phase after it.
void SimBootLoader::AnswerStage() {
  if (phase_ == Phase::Stage1) {
    if (config_.stage1Answer) Send(*config_.stage1Answer);
    phase_ = config_.stage2 ? Phase::Stage2 : Phase::Stage3;
  } else if (phase_ == Phase::Stage2) {
    if (config_.stage2Answer) Send(*config_.stage2Answer);
    phase_ = Phase::Stage3;
  } else {
    if (config_.ready) Send(*config_.ready);
    phase_ = Phase::Records;
  }
}

bool SimBootLoader::TakeStartFrame() {
  DropStray(std::find(pending_.begin(), pending_.end(), protocol::kStartByte));
  if (pending_.size() < protocol::kHeaderSize) return false;
  const protocol::AnswerHeader header = protocol::ParseHeader(pending_.data() + 1);
  const size_t length = header.FrameLength();
  if (pending_.size() < length) return false;
  std::vector<uint8_t> frame(pending_.begin(), pending_.begin() + std::ptrdiff_t(length));
  pending_.erase(pending_.begin(), pending_.begin() + std::ptrdiff_t(length));
  const bool valid = protocol::VerifyCheckValue(frame.data(), frame.size());
  {
    std::lock_guard lock(mutex_);
    frames_.push_back(frame);
  }
  changed_.notify_all();
  if (valid && header.code == kServiceFirmwareDownload) {
    BeginDownload();
    if (config_.answerStartFrame) {
      SendBytes(BuildFrame(uint16_t(kServiceFirmwareDownload | protocol::kAnswerBit), {}));
    }
    if (config_.ready) Send(*config_.ready);
    phase_ = Phase::Records;
  }
  return true;
}

// A record is all that is pending once the line has gone idle, as it may hold ':' itself.
bool SimBootLoader::TakeRecord(bool idle) {
  if (pending_.empty()) return false;
  // A new download begins with its start request again, or with the wake byte of the
  // chain, which no record starts with.
  const uint8_t nextStart = config_.stages ? kWake : protocol::kStartByte;
  if (pending_.front() == nextStart) {
    phase_ = config_.stages ? Phase::Wake : Phase::StartFrame;
    return true;
  }
  if (pending_.front() != kRecordStart) {
    DropStray(std::find_if(pending_.begin(), pending_.end(),
                           [&](uint8_t b) { return b == kRecordStart || b == nextStart; }));
    return !pending_.empty();
  }
  if (!idle) return false;
  uint8_t answer = config_.recordAnswer;
  if (answerIndex_ < config_.recordAnswers.size()) answer = config_.recordAnswers[answerIndex_++];
  std::vector<uint8_t> record;
  record.swap(pending_);
  {
    std::lock_guard lock(mutex_);
    records_.push_back(record);
  }
  changed_.notify_all();
  Notify({.kind = BootEvent::Kind::Record, .record = ++downloadRecords_, .bytes = &record});
  Send(answer);
  return false;  // nothing is left pending
}

// Bytes ahead of what the dialogue waits for fit nowhere: gone from the line, kept for Stray().
void SimBootLoader::DropStray(std::vector<uint8_t>::iterator end) {
  if (end == pending_.begin()) return;
  {
    std::lock_guard lock(mutex_);
    stray_.insert(stray_.end(), pending_.begin(), end);
  }
  pending_.erase(pending_.begin(), end);
}

// A host that gave up half-way starts over with the wake byte, while the loader still waits
// for the rest of a stage. A lone zero byte followed by quiet is no loader stage, so it is
// taken as that new start; a stage counted as one byte long keeps it.
bool SimBootLoader::WakeAgain(bool idle, std::optional<size_t> stageLength) const {
  return idle && pending_.size() == 1 && pending_[0] == kWake && stageLength.value_or(0) != 1;
}

void SimBootLoader::BeginDownload() {
  downloadRecords_ = 0;
  {
    std::lock_guard lock(mutex_);
    ++downloads_;
    for (auto& stage : stages_) stage.reset();
  }
  changed_.notify_all();
  Notify({.kind = BootEvent::Kind::Download});
}

void SimBootLoader::Notify(BootEvent event) {
  if (!config_.observer) return;
  {
    std::lock_guard lock(mutex_);
    event.download = downloads_;
  }
  config_.observer(event);
}

void SimBootLoader::Send(uint8_t byte) { SendBytes({&byte, 1}); }

void SimBootLoader::SendBytes(std::span<const uint8_t> bytes) {
  const size_t length = bytes.size();
  size_t sent = 0;
  // The input queue of a line holds far more than the loader ever says at once; a full
  // queue would mean a driver that stopped reading, and then a lost answer is what it gets.
  for (int attempt = 0; sent < length && attempt < 100; ++attempt) {
    const ssize_t n = ::write(master_, bytes.data() + sent, length - sent);
    if (n > 0) {
      sent += size_t(n);
    } else if (n < 0 && errno != EINTR && errno != EAGAIN) {
      return;
    } else if (n < 0 && errno == EAGAIN) {
      ::usleep(1000);
    }
  }
}

size_t SimBootLoader::WakeBytes() const {
  std::lock_guard lock(mutex_);
  return wakeBytes_;
}

size_t SimBootLoader::Downloads() const {
  std::lock_guard lock(mutex_);
  return downloads_;
}

std::optional<std::vector<uint8_t>> SimBootLoader::Stage(int stage) const {
  if (stage < 1 || stage > 3) return std::nullopt;
  std::lock_guard lock(mutex_);
  return stages_[stage - 1];
}

std::vector<std::vector<uint8_t>> SimBootLoader::Records() const {
  std::lock_guard lock(mutex_);
  return records_;
}

std::vector<std::vector<uint8_t>> SimBootLoader::Frames() const {
  std::lock_guard lock(mutex_);
  return frames_;
}

std::vector<uint8_t> SimBootLoader::Stray() const {
  std::lock_guard lock(mutex_);
  return stray_;
}

bool SimBootLoader::WaitForStage(int stage, std::chrono::milliseconds timeout) const {
  if (stage < 1 || stage > 3) return false;
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return stages_[stage - 1].has_value(); });
}

bool SimBootLoader::WaitForRecords(size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return records_.size() >= count; });
}

}  // namespace tamrik::sim

// A gateway's boot loader as the download methods meet it, on a pseudo-terminal of its own:
// the wake byte and identification, the three loader stages, the ready character and one
// answer character per firmware record. It serves any number of downloads in a row, as a
// loader that is reset between them would. Everything it receives is kept, so that a test
// can compare what arrived with the files it gave the driver.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace tamrik::sim {

// One step of the dialogue, handed to the observer before the loader answers it.
struct BootEvent {
  enum class Kind { Download, Stage, Record };
  Kind kind = Kind::Download;
  size_t download = 0;  // 1 for the first download the loader served
  int stage = 0;        // Stage: 1 to 3
  size_t record = 0;    // Record: 1 for the first record of this download
  const std::vector<uint8_t>* bytes = nullptr;  // Stage, Record: what arrived
};

struct BootLoaderConfig {
  // With stages: the whole chain (wake byte, stages 1 to 3, records). Without: the firmware
  // start request (FirmwareDownload) arrives as a frame, is answered with a frame, and the
  // records follow.
  bool stages = true;

  uint8_t ident = 0xC5;  // the identification byte answered to the wake byte

  // Byte counts of the stages. A stage with no count ends when the line has been idle for
  // idleGap after its first byte; an empty stage needs a count of 0.
  std::optional<size_t> stage1Length;
  std::optional<size_t> stage2Length;
  std::optional<size_t> stage3Length;

  std::optional<uint8_t> stage1Answer = 'r';  // nothing: the stage goes unanswered
  bool stage2 = true;                         // false: stage 3 follows stage 1
  std::optional<uint8_t> stage2Answer = 'K';  // outside the answer table: accepted

  bool answerStartFrame = true;        // records-only mode: answer the start request
  std::optional<uint8_t> ready = 'r';  // after stage 3, or after the answer to the start request

  // One answer per record received, repetitions included; once used up, recordAnswer.
  std::vector<uint8_t> recordAnswers;
  uint8_t recordAnswer = 'r';

  // A record is sent without a line end and may hold the byte ':' itself, so it ends only
  // when the line has been idle this long (the driver waits for the answer before it goes on).
  std::chrono::milliseconds idleGap{20};

  // Called on the loader's thread for each event, before the answer to it goes out: whatever
  // it writes is there by the time the host has the answer. It must not throw, and it holds
  // the dialogue up for as long as it runs.
  std::function<void(const BootEvent&)> observer;
};

class SimBootLoader {
 public:
  explicit SimBootLoader(BootLoaderConfig config = {});
  ~SimBootLoader();
  SimBootLoader(const SimBootLoader&) = delete;
  SimBootLoader& operator=(const SimBootLoader&) = delete;

  // False when the pseudo-terminal could not be made; the path is empty then.
  bool ok() const { return master_ >= 0; }
  const std::string& slavePath() const { return slavePath_; }

  // What has arrived so far.
  size_t WakeBytes() const;                            // 0x00 bytes taken as wake-up
  size_t Downloads() const;                            // downloads begun (wake byte or start request)
  std::optional<std::vector<uint8_t>> Stage(int stage) const;  // 1 to 3 of the latest download, once complete
  std::vector<std::vector<uint8_t>> Records() const;   // every record of every download, repetitions included
  std::vector<std::vector<uint8_t>> Frames() const;    // request frames (records-only mode)
  std::vector<uint8_t> Stray() const;                  // bytes that fit nowhere in the dialogue

  // Wait, at most timeout, until the stage is complete or the count of records is reached.
  bool WaitForStage(int stage, std::chrono::milliseconds timeout) const;
  bool WaitForRecords(size_t count, std::chrono::milliseconds timeout) const;

 private:
  enum class Phase { Wake, Stage1, Stage2, Stage3, StartFrame, Records };

  void Run();
  void Process(bool idle);
  // One step of the dialogue in the current phase; true when it completed, so that the
  // pending bytes may hold the next.
  bool Step(bool idle);
  bool TakeWake();
  bool TakeStagePhase(bool idle);
  bool TakeStartFrame();
  bool TakeRecord(bool idle);
  bool TakeStage(bool idle, std::optional<size_t> length, std::vector<uint8_t>* out);
  void AnswerStage();
  bool WakeAgain(bool idle, std::optional<size_t> stageLength) const;
  void DropStray(std::vector<uint8_t>::iterator end);
  void BeginDownload();
  void Notify(BootEvent event);
  void Send(uint8_t byte);
  void SendBytes(std::span<const uint8_t> bytes);

  BootLoaderConfig config_;
  int master_ = -1;
  int slave_ = -1;
  int wakePipe_[2] = {-1, -1};
  std::string slavePath_;

  // Only the loader's thread touches these.
  Phase phase_ = Phase::Wake;
  std::vector<uint8_t> pending_;
  size_t answerIndex_ = 0;
  size_t downloadRecords_ = 0;  // records of the current download

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  size_t wakeBytes_ = 0;
  size_t downloads_ = 0;
  std::optional<std::vector<uint8_t>> stages_[3];
  std::vector<std::vector<uint8_t>> records_;
  std::vector<std::vector<uint8_t>> frames_;
  std::vector<uint8_t> stray_;

  std::thread thread_;
};

}  // namespace tamrik::sim

#include "ServeSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <httplib.h>

#include <regex>
#include <thread>

#include "common/Loopback.h"

namespace tamrik::test {
namespace {

pid_t Spawn(const std::vector<std::string>& argv, int out, int err) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  if (out >= 0) dup2(out, 1);
  if (err >= 0) dup2(err, 2);
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  execv(args[0], args.data());
  _exit(127);
}

// Reads what is there within timeoutMs; false at the end of the stream or on time-out.
bool ReadSome(int fd, std::string* text, int64_t timeoutMs) {
  pollfd p{fd, POLLIN, 0};
  if (poll(&p, 1, int(timeoutMs)) <= 0) return false;
  char buffer[4096];
  const ssize_t n = read(fd, buffer, sizeof buffer);
  if (n <= 0) return false;
  text->append(buffer, size_t(n));
  return true;
}

// Waits for the child up to timeoutMs; its exit status, 128 + signal, or -1.
int Reap(pid_t pid, int64_t timeoutMs) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  int status = 0;
  while (std::chrono::steady_clock::now() < end) {
    if (waitpid(pid, &status, WNOHANG) == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return -1;
}

bool Accepts(uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return ok;
}

Reply ToReply(const httplib::Result& result) {
  Reply reply;
  if (!result) return reply;
  reply.status = result->status;
  reply.text = result->body;
  reply.body = Json::parse(result->body, nullptr, false);
  return reply;
}

httplib::Headers Authorization(const std::string& token) {
  if (token.empty()) return {};
  return {{"Authorization", "Bearer " + token}};
}

}  // namespace

bool WaitFor(const std::function<bool()>& condition, int64_t timeoutMs) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

uint16_t FreePort() { return ClosedLoopbackPort(); }

ServeProcess::ServeProcess(const std::vector<std::string>& args) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return;
  std::vector<std::string> argv = {TAMRIK_TOOL, "serve"};
  argv.insert(argv.end(), args.begin(), args.end());
  pid_ = Spawn(argv, fds[1], -1);
  close(fds[1]);
  out_ = fds[0];
  static const std::regex kListening(R"(http: listening on http://[^:]+:(\d+))");
  std::string text;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (port_ == 0 && std::chrono::steady_clock::now() < end && ReadSome(out_, &text, 1000)) {
    for (size_t newline = text.find('\n'); newline != std::string::npos; newline = text.find('\n')) {
      lines_.push_back(text.substr(0, newline));
      text.erase(0, newline + 1);
      std::smatch match;
      if (std::regex_search(lines_.back(), match, kListening)) port_ = uint16_t(std::stoi(match[1]));
    }
  }
}

ServeProcess::~ServeProcess() {
  if (pid_ > 0 && Stop(SIGKILL, 5000) < 0) std::fprintf(stderr, "serve %d did not end\n", int(pid_));
  if (out_ >= 0) close(out_);
}

int ServeProcess::Stop(int signal, int64_t timeoutMs) {
  if (pid_ <= 0) return -1;
  kill(pid_, signal);
  const int status = Reap(pid_, timeoutMs);
  if (status >= 0) pid_ = -1;
  return status;
}

Finished RunServe(const std::vector<std::string>& args, int64_t timeoutMs) {
  int fds[2];
  Finished finished;
  if (pipe2(fds, O_CLOEXEC) != 0) return finished;
  std::vector<std::string> argv = {TAMRIK_TOOL, "serve"};
  argv.insert(argv.end(), args.begin(), args.end());
  const pid_t pid = Spawn(argv, -1, fds[1]);
  close(fds[1]);
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (std::chrono::steady_clock::now() < end && ReadSome(fds[0], &finished.err, 1000)) {
  }
  close(fds[0]);
  finished.status = Reap(pid, 5000);
  if (finished.status < 0) {
    kill(pid, SIGKILL);
    Reap(pid, 5000);
  }
  return finished;
}

Reply Get(uint16_t port, const std::string& path, const std::string& token) {
  httplib::Client client("127.0.0.1", port);
  client.set_read_timeout(5, 0);
  return ToReply(client.Get(path.c_str(), Authorization(token)));
}

Reply Post(uint16_t port, const std::string& path, const std::string& body, const std::string& token) {
  httplib::Client client("127.0.0.1", port);
  client.set_read_timeout(5, 0);
  return ToReply(client.Post(path.c_str(), Authorization(token), body, "application/json"));
}

Broker::Broker() : port_(FreePort()) {
  dir_.Write("mosquitto.conf", "listener " + std::to_string(port_) +
                                   " 127.0.0.1\nallow_anonymous true\npersistence false\nlog_dest none\n");
  Start();
}

Broker::~Broker() { Stop(); }

bool Broker::Start() {
  pid_ = Spawn({TAMRIK_MOSQUITTO, "-c", dir_.File("mosquitto.conf")}, -1, -1);
  if (WaitFor([this] { return Accepts(port_); }, 5000)) return true;
  Stop();
  return false;
}

void Broker::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  if (Reap(pid_, 5000) < 0) {
    kill(pid_, SIGKILL);
    Reap(pid_, 5000);
  }
  pid_ = -1;
}

Subscriber::Subscriber(uint16_t port, const std::string& filter) {
  mosquitto_lib_init();
  client_ = mosquitto_new(nullptr, true, this);
  mosquitto_message_callback_set(client_, [](mosquitto*, void* self, const mosquitto_message* m) {
    auto* subscriber = static_cast<Subscriber*>(self);
    std::lock_guard lock(subscriber->mutex_);
    subscriber->messages_.push_back(
        {m->topic, std::string(static_cast<const char*>(m->payload), size_t(m->payloadlen)), m->retain});
  });
  if (mosquitto_connect(client_, "127.0.0.1", port, 30) != MOSQ_ERR_SUCCESS) return;
  connected_ = mosquitto_subscribe(client_, nullptr, filter.c_str(), 1) == MOSQ_ERR_SUCCESS &&
               mosquitto_loop_start(client_) == MOSQ_ERR_SUCCESS;
}

Subscriber::~Subscriber() {
  mosquitto_disconnect(client_);
  mosquitto_loop_stop(client_, true);
  mosquitto_destroy(client_);
}

std::vector<Message> Subscriber::Messages() const {
  std::lock_guard lock(mutex_);
  return messages_;
}

std::vector<Message> Subscriber::On(const std::string& topic) const {
  std::vector<Message> found;
  for (const Message& message : Messages())
    if (message.topic == topic) found.push_back(message);
  return found;
}

std::optional<Message> Subscriber::WaitOn(const std::string& topic, const std::function<bool(const Message&)>& check,
                                          int64_t timeoutMs) {
  std::optional<Message> found;
  WaitFor(
      [&] {
        for (const Message& message : On(topic))
          if (check(message)) found = message;
        return found.has_value();
      },
      timeoutMs);
  return found;
}

void Subscriber::Publish(const std::string& topic, const std::string& payload) {
  mosquitto_publish(client_, nullptr, topic.c_str(), int(payload.size()), payload.data(), 1, false);
}

std::string GatewayTable(const std::string& name, uint16_t port, bool writable, int32_t inputsMs) {
  return "[[gateway]]\nname = \"" + name + "\"\ntcp = \"127.0.0.1:" + std::to_string(port) + "\"\ninputs = " +
         std::to_string(inputsMs) + "\noutputs = 500\nclock = 1000\nerrors = 2000\ntimeout = 150\nwritable = " +
         (writable ? "true" : "false") + "\n\n";
}

}  // namespace tamrik::test

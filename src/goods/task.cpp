#include <goods/task.h>

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include <goods/errors.h>

namespace goods {
namespace {

struct start {
  task::function run;
  void* argument;
};

// An exception that gets here ends the process.
extern "C" void* run_task(void* data) noexcept {
  const std::unique_ptr<start> mine(static_cast<start*>(data));
  mine->run(mine->argument);
  return nullptr;
}

std::size_t whole_pages(std::size_t bytes) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return (bytes + page - 1) / page * page;
}

// The attributes of one pthread_create().
class thread_attributes {
 public:
  explicit thread_attributes(std::size_t stack_size) {
    pthread_attr_init(&attributes_);
    pthread_attr_setstacksize(&attributes_, whole_pages(std::max(stack_size, task::min_stack)));
  }
  ~thread_attributes() { pthread_attr_destroy(&attributes_); }
  thread_attributes(const thread_attributes&) = delete;
  thread_attributes& operator=(const thread_attributes&) = delete;
  const pthread_attr_t* get() const { return &attributes_; }

 private:
  pthread_attr_t attributes_;
};

}  // namespace

struct task::thread {
  pthread_t id;
};

void task::initialize(std::size_t) {}

void task::sleep(unsigned seconds) { std::this_thread::sleep_for(std::chrono::seconds(seconds)); }

task task::create(function run, void* argument, priority, std::size_t stack_size) {
  auto data = std::make_unique<start>(start{run, argument});
  auto running = std::make_unique<thread>();
  const thread_attributes attributes(stack_size);
  const int error = pthread_create(&running->id, attributes.get(), run_task, data.get());
  if (error != 0) {
    throw_error(error_code::usage,
                "A thread with a stack of " + std::to_string(stack_size) +
                    " bytes could not be started: " + std::generic_category().message(error));
  }
  (void)data.release();  // the thread's from here on
  return task(std::move(running));
}

task::task(std::unique_ptr<thread> running) : thread_(std::move(running)) {}
task::task(task&& other) noexcept = default;

task& task::operator=(task&& other) noexcept {
  join();
  thread_ = std::move(other.thread_);
  return *this;
}

task::~task() { join(); }

void task::join() {
  if (thread_ == nullptr) return;
  pthread_join(thread_->id, nullptr);
  thread_.reset();
}

void task::detach() {
  if (thread_ == nullptr) return;
  pthread_detach(thread_->id);
  thread_.reset();
}

}  // namespace goods

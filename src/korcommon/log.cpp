#include "korcommon/log.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "dova/init.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/os/node_handle_base.h"
#include "dova/time.h"
#include "korcommon/log_record_pool.h"
#include "korcommon/screen_line.h"
#include "korcommon/trace_format.h"

namespace korcommon {

std::atomic<int32_t> ROBOT_LOG_LEVEL{-1};
std::atomic<int32_t> ROBOT_LOG_SIZE{-1};
std::mutex mutex_;

namespace {

// Buffers up to this size live on the caller's stack; larger ones on the heap.
constexpr int32_t kLargestStackBuffer = 16 * 1024;

// The environment variable as a 32-bit integer, strtol's way; nullopt-like
// `present` false when it is not set.
int32_t environmentInteger(const char* name, bool& present) {
  const char* text = std::getenv(name);
  present = text != nullptr;
  return present ? static_cast<int32_t>(std::strtol(text, nullptr, 10)) : 0;
}

// The setting, taken from the environment variable `variable` the first time it is needed
// unless a setter came first: the variable's value when it is set and `usable`, otherwise
// `fallback`.
template <typename Usable>
int32_t setUpSetting(std::atomic<int32_t>& setting, const char* variable, int32_t fallback,
                     Usable usable) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (setting.load(std::memory_order_relaxed) < 0) {
    bool present = false;
    const int32_t configured = environmentInteger(variable, present);
    setting.store(present && usable(configured) ? configured : fallback, std::memory_order_relaxed);
  }
  return setting.load(std::memory_order_relaxed);
}

int32_t setUpLevel() {
  return setUpSetting(ROBOT_LOG_LEVEL, "DOVA_LOG_LEVEL", detail::kDefaultLogLevel,
                      [](int32_t) { return true; });
}

int32_t setUpSize() {
  return setUpSetting(ROBOT_LOG_SIZE, "DOVA_LOG_SIZE", detail::kDefaultLogSize,
                      [](int32_t size) { return size > 0; });
}

// Process and kernel thread ids, asked of the kernel once per thread (and
// again in a child after fork, where both change).
struct ThreadIds {
  pid_t pid = 0;
  pid_t tid = 0;
  unsigned generation = 0;
};

std::atomic<unsigned> fork_generation{1};

const ThreadIds& currentIds() {
  static const bool registered = [] {
    pthread_atfork(nullptr, nullptr, [] { fork_generation.fetch_add(1); });
    return true;
  }();
  (void)registered;
  thread_local ThreadIds ids;
  const unsigned generation = fork_generation.load(std::memory_order_relaxed);
  if (ids.generation != generation) {
    ids.pid = getpid();
    ids.tid = static_cast<pid_t>(syscall(SYS_gettid));
    ids.generation = generation;
  }
  return ids;
}

// The last path component, as dova::filesystem::path(file).filename() gives
// it on POSIX (every "/" separates, a trailing one leaves an empty name),
// without building the path's list of components on every call.
const char* fileName(const char* file) {
  if (file == nullptr) return "";
  const char* slash = std::strrchr(file, '/');
  return slash == nullptr ? file : slash + 1;
}

void publish(dova::NodeHandleBase& handle, int level, const char* file, int line,
             const char* function, const char* text) {
  // A recycled record holds an earlier message: every field is set here.
  const std::shared_ptr<dova::dova_msgs::Log> record = detail::takeLogRecord();
  record->header.seq = 0;
  record->header.stamp = dova::Time::now();
  record->header.frame_id.clear();
  record->header.caller_id.clear();
  record->level = static_cast<int8_t>(level);
  record->name = dova::getNodeName();
  // Stamped with the sender's identity here, so the middleware need not copy
  // the record to stamp it.
  record->caller_id = record->name;
  record->file = fileName(file);
  record->line = static_cast<uint32_t>(line);
  record->function = function;
  record->msg = text;
  record->topics.clear();
  const ThreadIds& ids = currentIds();
  record->pid = static_cast<uint64_t>(ids.pid);
  record->tid = static_cast<uint64_t>(ids.tid);
  handle.log(record);
}

bool screenEnabled() {
  bool present = false;
  return environmentInteger("DOVA_LOG_SCREEN", present) == 1 && present;
}

void printScreenLine(int level, const char* file, int line, const char* text) {
  const std::string name = dova::getNodeName();
  const ThreadIds& ids = currentIds();
  detail::ScreenLine fields;
  // The date comes from the wall clock, "clk" from the middleware's, which may run on
  // simulated time.
  fields.wall = dova::Time::WallTime();
  fields.level = level;
  fields.node = name;
  fields.pid = ids.pid;
  fields.tid = static_cast<int32_t>(ids.tid);
  fields.file = fileName(file);
  fields.line = line;
  fields.clock = dova::Time::now();
  fields.text = text;
  std::string screen_line = detail::screenLine(fields, true);
  screen_line += '\n';
  std::fwrite(screen_line.data(), 1, screen_line.size(), stdout);
  std::fflush(stdout);
}

// Everything after the filter, apart so that a filtered call never sets up
// the large stack frame of the buffer.
[[gnu::noinline]] __attribute__((format(printf, 6, 0))) void logPassing(
    int level, const char* file, int line, const char* function, int32_t size, const char* format,
    va_list arguments) {
  char stack_buffer[kLargestStackBuffer];
  std::unique_ptr<char[]> heap_buffer;
  char* buffer = stack_buffer;
  if (size > kLargestStackBuffer) {
    heap_buffer.reset(new char[static_cast<size_t>(size)]);
    buffer = heap_buffer.get();
  }
  // vsnprintf's floating-point path was most of a passing call's cost;
  // formatTrace writes the same bytes for a fraction of it.
  detail::formatTrace(buffer, static_cast<size_t>(size), format, arguments);

  dova::NodeHandleBase* const handle = dova::nh();
  if (handle->ok()) publish(*handle, level, file, line, function, buffer);
  if (screenEnabled()) printScreenLine(level, file, line, buffer);
}

__attribute__((format(printf, 5, 0))) void traceCall(int level, const char* file, int line,
                                                     const char* function, const char* format,
                                                     va_list arguments) {
  int32_t configured = ROBOT_LOG_LEVEL.load(std::memory_order_relaxed);
  if (configured < 0) configured = setUpLevel();
  int32_t size = ROBOT_LOG_SIZE.load(std::memory_order_relaxed);
  if (size < 0) size = setUpSize();
  if (!detail::passesLevel(configured, level)) return;
  logPassing(level, file, line, function, size, format, arguments);
}

}  // namespace

void mtrace(int level, const char* file, int line, const char* function, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  traceCall(level, file, line, function, format, arguments);
  va_end(arguments);
}

namespace detail {

void mtraceOutOfLine(int level, const char* file, int line, const char* function,
                     const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  traceCall(level, file, line, function, format, arguments);
  va_end(arguments);
}

}  // namespace detail

void set_log_level(int level) {
  std::lock_guard<std::mutex> lock(mutex_);
  ROBOT_LOG_LEVEL.store(level, std::memory_order_relaxed);
}

void set_log_size(int size) {
  if (size < 1) return;
  std::lock_guard<std::mutex> lock(mutex_);
  ROBOT_LOG_SIZE.store(size, std::memory_order_relaxed);
}

}  // namespace korcommon

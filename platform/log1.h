// Trace library: the formatted trace sink of the whole service, whose level can
// change while the service runs. Each source file declares one unit record with
// QOR_TRACE_UNIT(), each traced function one control block with QOR_TRACE_FUNCTION().
// All functions here are safe from any thread; a line is written whole or not at all.
#ifndef QOR_PLATFORM_LOG1_H
#define QOR_PLATFORM_LOG1_H

#include <atomic>
#include <cstdint>
#include <string>

// Trace bits. A call site tests its bits before it calls the library, so a
// disabled trace costs one test and formats nothing.
enum : unsigned {
  QOR_TL_DETAIL = 1,    // values in the state logic
  QOR_TL_QUEUE = 16,    // mechanics of the queues
  QOR_TL_ENTRY = 64,    // function entry and exit
  QOR_TL_ERROR = 128,   // failed system calls and failed operations
  QOR_TL_STATUS = 256,  // availability outcomes
  QOR_TL_STORY = 146,   // 128 | 16 | 2: startup, shutdown, cycles, discovery
};

// The default mask when QOR_TRACE_LEVEL is unset or not a plain number: errors only.
constexpr unsigned QOR_TRACE_DEFAULT_MASK = QOR_TL_ERROR;

// Kinds of LOG1_Event.
enum : int { LOG1_ENTRY = 0, LOG1_EXIT_VALUE = 1, LOG1_EXIT = 2 };

// One record per source file. The generation changes whenever the trace
// configuration changes, which invalidates the flags cached in every block.
struct LOG1_Unit {
  std::atomic<unsigned> generation;
  const char* buildDate;
  const char* buildTime;
  const char* fileName;  // base name of the source file
  const char* component;
  LOG1_Unit* next;  // link of the process-wide registry of units

  LOG1_Unit(const char* date, const char* time, const char* path);
  LOG1_Unit(const LOG1_Unit&) = delete;
  LOG1_Unit& operator=(const LOG1_Unit&) = delete;
};

// One static block per traced function. `cache` packs the generation at which
// the flags were taken (high half) with the flags (low half), so that a reader
// on another thread never sees flags of one generation with the number of another.
struct LOG1_EPB {
  LOG1_Unit* unit;
  const char* function;
  int functionLength;
  int firstLine;
  std::atomic<unsigned>* generation;
  std::atomic<std::uint64_t> cache;
};

// Returns fresh flags for the block and caches them at the unit's generation.
unsigned LOG1_Sync(LOG1_EPB* epb);

// The flags of a block: the cached ones while the generation holds, else LOG1_Sync.
inline unsigned LOG1_Flags(LOG1_EPB* epb) {
  std::uint64_t cached = epb->cache.load(std::memory_order_acquire);
  unsigned generation = epb->generation->load(std::memory_order_acquire);
  if (static_cast<unsigned>(cached >> 32) == generation) return static_cast<unsigned>(cached);
  return LOG1_Sync(epb);
}

// Entry (kind 0), exit (kind 2) or exit with a return value (kind 1).
void LOG1_Event(LOG1_EPB* epb, int line, int kind, long value);

// One trace line of the trace bits `level`: timestamp, thread, unit file,
// function, source line and text. Written to the journal, the line carries a
// priority from its level instead of the timestamp (LOG1_IsJournalStream).
void LOG1_Printf(LOG1_EPB* epb, unsigned level, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// The current trace mask, and a change of it while the service runs; a change
// bumps the generation of every unit, so each function sees it at its next entry.
unsigned LOG1_GetMask();
void LOG1_SetMask(unsigned mask);

// Reads QOR_TRACE_LEVEL and QOR_TRACE_FILE again and reopens the sink. The
// library does this by itself on first use; hosts and tests call it after
// changing the environment.
void LOG1_Reconfigure();

// Writes the trace file again from the start of a new file at the same path,
// for a log rotation that has just moved the old file away. Lines written at
// the same time go whole to the old file or whole to the new one. False, and
// nothing changed, when traces go to standard error or the path cannot be
// opened (traces then stay in the old file).
bool LOG1_ReopenFile();

// True when `fd` is the stream that the service manager connected to the
// journal: not a terminal, and its device and inode are those named by
// JOURNAL_STREAM ("DEV:INODE", decimal). Lines written there carry a priority
// prefix ("<3>") and no time of their own, since the journal stamps them.
bool LOG1_IsJournalStream(int fd);

// Wide text as UTF-8, for trace arguments.
std::string LOG1_Narrow(const std::wstring& text);
std::string LOG1_Narrow(const wchar_t* text);

inline bool LOG1_On(unsigned flags, unsigned level) { return (flags & level) == level; }

// Writes the entry event on construction and the exit event on destruction,
// when bit 64 was set at entry.
class LOG1_Scope {
 public:
  LOG1_Scope(LOG1_EPB* epb, unsigned flags, int line) : epb_(epb), on_(LOG1_On(flags, QOR_TL_ENTRY)) {
    if (on_) LOG1_Event(epb_, line, LOG1_ENTRY, 0);
  }
  ~LOG1_Scope() {
    if (on_) LOG1_Event(epb_, 0, hasValue_ ? LOG1_EXIT_VALUE : LOG1_EXIT, value_);
  }
  // Records a return value for the exit event and hands it back.
  template <typename T>
  T result(T value) {
    hasValue_ = true;
    value_ = static_cast<long>(value);
    return value;
  }
  LOG1_Scope(const LOG1_Scope&) = delete;
  LOG1_Scope& operator=(const LOG1_Scope&) = delete;

 private:
  LOG1_EPB* epb_;
  bool on_;
  bool hasValue_ = false;
  long value_ = 0;
};

// The unit record of a source file; once per .cpp, at namespace scope.
#define QOR_TRACE_UNIT() static LOG1_Unit LOG1__UNIT_(__DATE__, __TIME__, __FILE__)

// The control block of a function, its flags for the life of the call, and its
// entry and exit events.
#define QOR_TRACE_FUNCTION()                                         \
  static LOG1_EPB LOG1__EPB_{&LOG1__UNIT_,                           \
                             __func__,                               \
                             static_cast<int>(sizeof(__func__) - 1), \
                             __LINE__,                               \
                             &LOG1__UNIT_.generation,                \
                             {0}};                                   \
  const unsigned LOG1__flags_ = LOG1_Flags(&LOG1__EPB_);             \
  LOG1_Scope LOG1__scope_(&LOG1__EPB_, LOG1__flags_, __LINE__)

// `return QOR_TRACE_RETURN(v);` reports v with the exit event.
#define QOR_TRACE_RETURN(value) LOG1__scope_.result(value)

// Arguments are evaluated only when the level is on.
#define QOR_TRACE(level, ...)                                                                     \
  do {                                                                                            \
    if (LOG1_On(LOG1__flags_, (level))) LOG1_Printf(&LOG1__EPB_, (level), __LINE__, __VA_ARGS__); \
  } while (0)
#define QOR_TRACE_DETAIL(...) QOR_TRACE(QOR_TL_DETAIL, __VA_ARGS__)
#define QOR_TRACE_QUEUE(...) QOR_TRACE(QOR_TL_QUEUE, __VA_ARGS__)
#define QOR_TRACE_STORY(...) QOR_TRACE(QOR_TL_STORY, __VA_ARGS__)
#define QOR_TRACE_ERROR(...) QOR_TRACE(QOR_TL_ERROR, __VA_ARGS__)
#define QOR_TRACE_STATUS(...) QOR_TRACE(QOR_TL_STATUS, __VA_ARGS__)

// True when the level is on for this call; for code that must decide more than a line.
#define QOR_TRACE_ON(level) LOG1_On(LOG1__flags_, (level))

// The trace block and flags of a call, handed to the helpers a long function
// is split into, so that their lines carry the name of the function a reader
// of the traces knows.
struct LOG1_Context {
  LOG1_EPB* block;
  unsigned flags;
};
#define QOR_TRACE_CONTEXT() (LOG1_Context{&LOG1__EPB_, LOG1__flags_})
// Opens such a helper: the trace macros below it write under `context`.
#define QOR_TRACE_AS(context)              \
  LOG1_EPB& LOG1__EPB_ = *(context).block; \
  const unsigned LOG1__flags_ = (context).flags

// A wide string argument for a "%s" conversion.
#define QOR_N(wide) (LOG1_Narrow(wide).c_str())

#endif  // QOR_PLATFORM_LOG1_H

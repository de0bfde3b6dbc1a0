// SPDX-License-Identifier: Apache-2.0
// Child processes in nuvra::tiny: ChildProcess forks (or vforks) a child, optionally connects
// its standard input, output and error to pipes (PipeChannel), optionally closes every other
// descriptor in the child (DescriptorList), and executes a program found on PATH; the parent
// reads the child's output by line or by chunk, writes lines to its input, waits for it with
// or without a time limit and kills it. Beside the class: the process controls (wait, kill,
// timed wait, niceness, the kernel's out-of-memory adjustment, descriptor closing) and
// convenience launchers that start a program in one call.
//
// Nothing here throws or logs. Failures are false, -1 or 0 results as each function states,
// with errno as the system left it; only the standard strings and vectors may throw
// std::bad_alloc. A child that cannot execute its program ends with the object's exec failure
// code (default -1, seen by the parent as status 255), and waiting reports status 255 as -1
// like any other failure: the two cannot be told apart, on purpose.
//
// Nothing is locked: one thread uses a ChildProcess at a time.

#ifndef NUVRA_TINY_PROCESS_H_
#define NUVRA_TINY_PROCESS_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace nuvra::tiny {

// What a PipeChannel is opened from. The buffer size is carried for callers that size their
// own buffers by it; the channel does not use it.
struct PipeSpec {
    // Values of `mode` (see PipeChannel).
    static constexpr uint32_t kModeRead = 1;
    static constexpr uint32_t kModeWrite = 2;
    static constexpr uint32_t kModeShared = kModeRead | kModeWrite;

    std::string name;  // empty: an anonymous pipe (the only kind supported)
    uint32_t mode = kModeShared;
    uint32_t bufferSize = 4096;
};

// One pipe, or one descriptor attached as the read end, the write end or both. The channel
// closes the pipe it opened itself when destroyed; an attached descriptor stays the caller's
// and is closed only by closeEnd() or close(). Ends are numbered: 1 is the read
// end, 2 the write end; any other number is refused.
//
// `mode` bit 0 asks for the read end, bit 1 for the write end; 3 means one descriptor serves
// both ends, so closing either end closes that descriptor once and marks both closed.
// WARNING: that holds for an anonymous pipe opened with mode 3 too, whose ends are two
// descriptors: closing one end then leaves the other descriptor open but marked closed.
// ChildProcess opens its pipes with mode 1 or 2 for that reason.
class PipeChannel {
  public:
    static constexpr int kReadEnd = 1;
    static constexpr int kWriteEnd = 2;

    PipeChannel() = default;
    ~PipeChannel();
    PipeChannel(const PipeChannel&) = delete;
    PipeChannel& operator=(const PipeChannel&) = delete;

    // Creates an anonymous pipe (close-on-exec) with both ends open and takes `spec.mode`.
    // False when either end is already open, when `spec.name` is not empty (named pipes are
    // not supported; the mode is still taken), or when pipe creation fails.
    [[nodiscard]] bool open(const PipeSpec& spec);

    // Takes `descriptor` (still the caller's, see above) as the read end (mode bit 0), the write
    // end (bit 1) or both (3). False when `spec.name` is not empty, `descriptor` is -1, or an end
    // is already open (the descriptor then stays the caller's).
    [[nodiscard]] bool attach(const PipeSpec& spec, int descriptor);

    // Closes one end. False for an end other than 1 or 2 and when close fails; true when the
    // end was not open.
    [[nodiscard]] bool closeEnd(int end);

    // closeEnd(1) then closeEnd(2); true when both succeeded.
    [[nodiscard]] bool close();

    // The descriptor of end 1 or 2 (whether open or not) into `out`; false for any other end.
    [[nodiscard]] bool descriptor(int end, int& out) const;

    // One read() of at most `size` bytes (a negative size counts as 2147483647) into
    // `buffer`. True with `count` > 0 when data arrived; false with `count` 0 at end of data,
    // on error (errno from read, EINTR included) and when the read end is not open.
    [[nodiscard]] bool read(void* buffer, int32_t size, int32_t& count);

    // One write() of `size` bytes, repeated only while it is interrupted (EINTR). A short
    // write is not continued: `count` tells how much went. False with `count` 0 on any other
    // error and when the write end is not open.
    // WARNING: writing to a pipe whose reader has gone raises SIGPIPE in the caller, which
    // ends the process unless the signal is ignored or handled.
    [[nodiscard]] bool write(const void* buffer, int32_t size, int32_t& count);

    bool readOpen = false;
    bool writeOpen = false;
    int readFd = -1;
    int writeFd = -1;
    uint32_t mode = 0;
    std::string name;

  private:
    bool attached_ = false;  // the open ends came from attach(): not closed by the destructor
};

// Descriptors to keep or to close in a child before it executes its program. With
// `closeListed` false the list names the descriptors to keep and every other one is closed;
// with `closeListed` true it names the only descriptors to close.
struct DescriptorList {
    bool closeListed = false;
    std::vector<int> descriptors;
};

// A child process running a program. Construct it with its flags, start it once, talk to it
// through its pipes, wait for it, destroy it.
class ChildProcess {
  public:
    enum Flags : uint32_t {
        // Pipe the child's standard input and standard output.
        RedirectStdio = 1,
        // The destructor kills (SIGKILL) and reaps a started child.
        KillOnDestroy = 2,
        // Set by the convenience launchers when the caller asks for no pid; has no effect.
        NoPidRequested = 4,
        // Create the child with vfork: the parent is suspended until the child executes or
        // exits, and until then the child works in the parent's memory.
        UseVfork = 8,
        // Pipe the child's standard error.
        RedirectStderr = 16,
    };

    // Bytes read from the child per read; each output buffer holds this many plus a NUL.
    static constexpr size_t kReadChunk = 512;

    // Opens the pipes the flags ask for: with RedirectStdio one for the child's input and one
    // for its output (stdioReady() only when both opened), with RedirectStderr one for its
    // error output. A pipe that cannot be opened is reported by start(). `priority` is the
    // niceness to give (-1: leave it; see start() for when it is applied). `keepList`, which
    // is not copied and must outlive start(), makes the child close descriptors by it.
    explicit ChildProcess(uint32_t flags, int priority = -1, DescriptorList* keepList = nullptr);

    // Closes every pipe end still open. With KillOnDestroy and a started child, kills it with
    // SIGKILL and reaps it; without, the child is neither killed nor reaped.
    // WARNING: the kill is sent even when the child has already been waited for, so its pid
    // may by then belong to another process.
    ~ChildProcess();

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The _exit status of a child that cannot execute its program; -1 (status 255) by default.
    void setExecFailureCode(int code) { execFailureCode_ = code; }

    // Starts the program argv[0], searched on PATH, with the null-terminated argument vector
    // `argv` (argv[0] included). False when a pipe the flags ask for is not open, when argv
    // or argv[0] is null, or when fork/vfork fails; otherwise true in the parent, whatever
    // then becomes of the child. The child never returns from here: it closes descriptors by
    // the keep list (which keeps its pipe descriptors; the list is changed in place, and
    // under vfork that is the parent's list), moves its pipes onto descriptors 0, 1 and 2,
    // and executes the program, retrying while execvp is interrupted and up to three times in
    // all while it fails with EAGAIN; on any other failure it ends with the exec failure code.
    //
    // WARNING: the niceness is applied, after the fork, to the process that pid() named
    // before this start: on a first start that is -1, which names no process, so the new
    // child keeps the caller's niceness; a second start gives it to the first child. Kept so.
    [[nodiscard]] bool start(const char* const argv[]);

    // Waits for the child without limit (waitForProcess). -1 before a successful start.
    [[nodiscard]] int waitForExit() const;

    // Waits for the child for at most `seconds` (waitForProcessTimeout: polled once a second,
    // killed at the first poll past the limit). -1 before a successful start.
    [[nodiscard]] int waitForExit(uint32_t seconds) const;

    // Clears `line` and reads the next line of the child's standard output (or error) into
    // it, the line feed included; at end of data the text collected so far, without one.
    // Returns the length of `line`; 0 at end of data and when that pipe was not requested or
    // could not be opened. Reads 512 bytes at a time and keeps what follows the line for the
    // next call. A NUL byte in the output ends the text of that read.
    [[nodiscard]] size_t readStdoutLine(std::string& line);
    [[nodiscard]] size_t readStderrLine(std::string& line);

    // Appends to `out` what a line read left over, then what one read of at most 512 bytes
    // brings. False at end of data and on error (even when left-over text was appended), and
    // when that pipe was not requested or could not be opened.
    [[nodiscard]] bool readStdout(std::string& out);
    [[nodiscard]] bool readStderr(std::string& out);

    // Writes `text`, with a line feed added unless it ends with one, to the child's standard
    // input in one write. Returns the bytes written; 0 on failure or when standard input is
    // not piped. See PipeChannel::write about SIGPIPE.
    [[nodiscard]] int32_t writeLine(const std::string& text);

    [[nodiscard]] uint32_t flags() const { return flags_; }
    // The child's id once a start succeeded; -1 before.
    [[nodiscard]] pid_t pid() const { return pid_; }
    // The result of the last fork; -1 before any.
    [[nodiscard]] pid_t childPid() const { return childPid_; }
    [[nodiscard]] int priority() const { return priority_; }
    [[nodiscard]] int execFailureCode() const { return execFailureCode_; }
    [[nodiscard]] bool stdioReady() const { return stdioReady_; }
    [[nodiscard]] bool stderrReady() const { return stderrReady_; }

    // The parent's ends after start: write to stdinPipe(), read from the other two. Closing
    // stdinPipe() gives the child end of data on its input.
    PipeChannel& stdinPipe() { return stdinPipe_; }
    PipeChannel& stdoutPipe() { return stdoutPipe_; }
    PipeChannel& stderrPipe() { return stderrPipe_; }

  private:
    // The child's half of start(); never returns.
    [[noreturn]] void runChild(const char* const argv[]);

    uint32_t flags_;
    char stdoutBuffer_[kReadChunk + 1] = {};
    char stderrBuffer_[kReadChunk + 1] = {};
    pid_t childPid_ = -1;
    pid_t pid_ = -1;
    int priority_;
    DescriptorList* keepList_;  // not owned
    size_t stdoutCursor_ = 0;   // index into stdoutBuffer_ of the text not yet handed out
    size_t stderrCursor_ = 0;
    PipeChannel stdinPipe_;
    PipeChannel stdoutPipe_;
    PipeChannel stderrPipe_;
    bool stdioReady_ = false;
    bool stderrReady_ = false;
    int execFailureCode_ = -1;
};

// waitpid(pid) without options, `pid` as given: -1 waits for any child and 0 for any child in
// the caller's process group (and then gives -1, as waitpid returns another pid). The exit
// status of a child that exited normally; -1 when waitpid did not return `pid`, when the child
// was killed or stopped, and for exit status 255.
[[nodiscard]] int waitForProcess(pid_t pid);

// Sends SIGKILL to `pid`, then reaps it with waitForProcess whatever kill returned. True when
// the signal was sent. A `pid` of 0 or below (which would signal a whole process group, or
// every process) is refused with false.
[[nodiscard]] bool killProcess(pid_t pid);

// Waits for `pid` for at most `seconds`; 0 and 4294967295 mean without limit (as
// waitForProcess). Otherwise polls with waitpid(WNOHANG), sleeping 1000 ms between polls;
// at the first poll at which more than seconds * 1000 ms (computed in 32 bits) have passed on
// the tick clock, kills and reaps the child and returns -1. A child that ended gives its
// status as waitForProcess decodes it; any waitpid error but EINTR gives -1. A `pid` of 0 or
// below is refused with -1, with or without a limit: the kill at the limit would otherwise
// signal a whole process group, or every process.
[[nodiscard]] int waitForProcessTimeout(pid_t pid, uint32_t seconds);

// setpriority(PRIO_PROCESS, pid, priority); true on success. A priority of -1 is refused with
// false without any call (so -1 cannot be set).
[[nodiscard]] bool setProcessPriority(pid_t pid, int priority);

// Writes `value` to /proc/<pid>/oom_adj. False only when the file cannot be opened: a value
// the kernel refuses still gives true.
[[nodiscard]] bool setOomAdjust(pid_t pid, int value);

// Closes descriptors of the calling process by `list` (see DescriptorList), reading the open
// ones from /proc/<pid>/fd. When that directory cannot be read it goes by the descriptor
// limit (RLIMIT_NOFILE, 2147483647 when unknown) instead: with `closeListed` true it closes
// the listed descriptors in list order; with `closeListed` false it sorts the list in place
// and closes every descriptor below the limit that is not listed.
// WARNING: an empty keep list closes everything, standard input, output and error included;
// meant for a child about to execute a program.
void closeDescriptors(DescriptorList& list);

// Makes `fd` survive closeDescriptors(list): adds it to a keep list (once), removes it from a
// close list.
void keepDescriptor(DescriptorList& list, int fd);

// Parses `text` as a decimal int with strtol (leading white space allowed). A value outside
// int is clamped to INT_MIN or INT_MAX and succeeds, on every target. False, leaving `out`
// alone, for text without a number or when anything is left unparsed.
[[nodiscard]] bool parseInteger(const std::string& text, int& out);

// Starts the program `program` (searched on PATH) with the single argument `argument` (may be
// null for none) and does not wait. Returns the child's pid, -1 when the start fails; stores
// the same into `*pidOut` when it is given. The child is never killed by these launchers.
[[nodiscard]] pid_t spawnProgram(const char* program, const char* argument, pid_t* pidOut);

// As spawnProgram, but the child closes every descriptor before executing, standard input,
// output and error included.
[[nodiscard]] pid_t spawnProgramClosingDescriptors(const char* program, const char* argument,
                                                   pid_t* pidOut);

// Starts the program with the single argument and waits for it without limit: its status as
// waitForProcess gives it, -1 when the start fails.
[[nodiscard]] int runProgram(const char* program, const char* argument);

// spawnProgram and runProgram with a whole null-terminated argument vector.
[[nodiscard]] pid_t spawnArgv(const char* const argv[], pid_t* pidOut);
[[nodiscard]] int runArgv(const char* const argv[]);

}  // namespace nuvra::tiny

#endif  // NUVRA_TINY_PROCESS_H_

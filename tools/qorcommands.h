// The operator commands of the programs that run the service: one table of
// command words, what each calls on the query service, and what each result
// code means in plain words. qorhost reads them on standard input; a control
// socket or a command-line client can share the same table, so that an
// operator sees the same words and the same meanings wherever the command is
// typed. Parsing and the table are pure; running a command asks the service
// (any thread may, once it is started).
#ifndef QOR_TOOLS_QORCOMMANDS_H
#define QOR_TOOLS_QORCOMMANDS_H

#include <string>
#include <vector>

class QOR_QueryService;

namespace qorcmd {

// What a command knows of its agent: the name the operator typed, and the
// process name the service's lookups compare (stop compares nothing else).
struct Target {
  std::wstring name;
  std::wstring process;
  bool listed = false;  // whether the listing holds an agent of that name
};

struct Meaning {
  int code;
  const char* text;
};

struct Command {
  const char* word;
  const char* argument;  // "NAME", or "" when the command takes none
  const char* summary;
  // What the command calls; null for the commands the program answers itself
  // (list, help).
  int (*call)(QOR_QueryService& service, const Target& target);
  // Every result the call may give, -1 included.
  std::vector<Meaning> meanings;
};

// The table, in the order the help shows it.
const std::vector<Command>& commands();
// The command of `word`, or null.
const Command* find(const std::string& word);

// The meaning of `code` for `command`, or "unknown result".
std::string meaning(const Command& command, int code);

struct Line {
  enum class Kind {
    Blank,        // nothing but blanks: ignored
    Run,          // a known command, with its name if it takes one
    Unknown,      // the first word is no command
    MissingName,  // a command that takes a NAME, without one
  };
  Kind kind = Kind::Blank;
  const Command* command = nullptr;
  std::string word;  // the first word as typed
  std::string name;  // the rest of the line, trimmed of blanks
};

// Reads one line of input: the command word, then the rest of the line as the
// agent's name, which may itself hold blanks. A trailing carriage return is a
// blank, so that lines typed on another system's terminal still work.
Line parse(const std::string& text);

// The one-line answer to a command that ran, without the program's prefix:
//   start 'Example sleeper': 0 (accepted)
//   disarm: 0 (accepted)
std::string answer(const Command& command, const std::string& name, int code);
// The one-line hint for a line that is not a command, without the prefix.
std::string hint(const Line& line);
// The commands and what they do, one per line, for --help and `help`.
std::string help();

// Finds the agent of the listing (the agents of the service, without the
// watchdog list) whose name is `name`, and its process name. A name that the
// listing does not hold is passed on as both name and process, so that the
// service answers for it: "no such agent", or the OS agent's own code, which
// it recognises by name.
Target lookup(QOR_QueryService& service, const std::string& name);

// The control socket that qorhost serves these commands on and qorctl sends
// them to: `given` when not empty, else $QOR_IP_DIR/qorhost.sock; empty when
// neither is set.
std::string controlSocketPath(const std::string& given);

// Looks the agent up, for a command that takes a name, and calls the command;
// the service's result code.
int run(QOR_QueryService& service, const Command& command, const std::string& name);

}  // namespace qorcmd

#endif  // QOR_TOOLS_QORCOMMANDS_H

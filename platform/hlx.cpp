#include "platform/hlx.h"

#include <expat.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unicode/unistr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace HLX {

namespace {

bool isBlank(char16_t unit) { return unit == u' ' || unit == u'\t' || unit == u'\n' || unit == u'\r'; }

struct BuildState {
  DOMElement* root = nullptr;
  std::vector<DOMElement*> open;
};

void XMLCALL onStart(void* data, const XML_Char* name, const XML_Char** /*attributes*/) {
  auto* state = static_cast<BuildState*>(data);
  auto* element = new DOMElement(name);
  if (state->open.empty()) {
    if (state->root == nullptr)
      state->root = element;
    else
      delete element;  // expat reports a second root as an error anyway
  } else {
    state->open.back()->appendChild(element);
  }
  state->open.push_back(element);
}

void XMLCALL onEnd(void* data, const XML_Char* /*name*/) {
  auto* state = static_cast<BuildState*>(data);
  if (!state->open.empty()) state->open.pop_back();
}

void XMLCALL onText(void* data, const XML_Char* text, int length) {
  auto* state = static_cast<BuildState*>(data);
  if (!state->open.empty()) state->open.back()->appendText(text, length);
}

}  // namespace

void drainPipes(int outFd, int errFd, std::string& out, std::string& err) {
  struct pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
  std::string* sinks[2] = {&out, &err};
  int open = 2;
  char buffer[4096];
  while (open > 0) {
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      ssize_t count = read(fds[i].fd, buffer, sizeof buffer);
      if (count > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(count));
      } else if (count == 0 || errno != EINTR) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  for (auto& fd : fds)
    if (fd.fd >= 0) close(fd.fd);
}

String::String(const char* utf8) {
  if (utf8 == nullptr) return;
  icu::UnicodeString text = icu::UnicodeString::fromUTF8(utf8);
  units_.assign(reinterpret_cast<const char16_t*>(text.getBuffer()), static_cast<size_t>(text.length()));
}

String String::fromUnits(const char16_t* units, size_t count) {
  String result;
  if (units != nullptr) result.units_.assign(units, count);
  return result;
}

CharStar String::c_str() const {
  icu::UnicodeString text(units_.data(), static_cast<int32_t>(units_.size()));
  std::string utf8;
  text.toUTF8String(utf8);
  char* copy = new char[utf8.size() + 1];
  std::memcpy(copy, utf8.c_str(), utf8.size() + 1);
  return CharStar(copy);
}

String& String::trim() {
  size_t begin = 0;
  while (begin < units_.size() && isBlank(units_[begin])) ++begin;
  size_t end = units_.size();
  while (end > begin && isBlank(units_[end - 1])) --end;
  units_ = units_.substr(begin, end - begin);
  return *this;
}

String Util::getHostName() {
  char name[256] = {0};
  if (gethostname(name, sizeof name - 1) != 0) return String();
  return String(name);
}

bool Util::readFile(const char* path, char** contents) {
  *contents = nullptr;
  if (path == nullptr) return false;
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  std::string data;
  char buffer[8192];
  ssize_t count;
  while ((count = read(fd, buffer, sizeof buffer)) != 0) {
    if (count < 0) {
      if (errno == EINTR) continue;
      close(fd);
      return false;
    }
    data.append(buffer, static_cast<size_t>(count));
  }
  close(fd);
  *contents = new char[data.size() + 1];
  std::memcpy(*contents, data.data(), data.size());
  (*contents)[data.size()] = '\0';
  return true;
}

bool Util::runCommand(const String& shell, int& exitCode, String& output, String& errors,
                      const String& command, bool /*unused*/) {
  CharStar shellText = shell.c_str();
  CharStar commandText = command.c_str();
  int outPipe[2];
  int errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0) return false;
  if (pipe2(errPipe, O_CLOEXEC) != 0) {
    close(outPipe[0]);
    close(outPipe[1]);
    return false;
  }
  pid_t child = fork();
  if (child < 0) {
    for (int fd : {outPipe[0], outPipe[1], errPipe[0], errPipe[1]}) close(fd);
    return false;
  }
  if (child == 0) {
    dup2(outPipe[1], STDOUT_FILENO);
    dup2(errPipe[1], STDERR_FILENO);
    execl(static_cast<char*>(shellText), static_cast<char*>(shellText), "-c", static_cast<char*>(commandText),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(outPipe[1]);
  close(errPipe[1]);
  std::string out;
  std::string err;
  drainPipes(outPipe[0], errPipe[0], out, err);
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return false;
  }
  exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  output = String(out.c_str());
  errors = String(err.c_str());
  return true;
}

DOMElement::~DOMElement() {
  for (DOMElement* child : children_) delete child;
}

DOMNodeList DOMElement::getElementsByTagName(const char* tagName) const {
  DOMNodeList result;
  for (const DOMElement* child : children_) child->collect(tagName, result);
  return result;
}

void DOMElement::collect(const char* tagName, DOMNodeList& into) const {
  if (tagName_ == tagName) into.append(const_cast<DOMElement*>(this));
  for (const DOMElement* child : children_) child->collect(tagName, into);
}

String DOMElement::getElementText() const { return String(text_.c_str()); }

DOMParser::DOMParser(const char* document) : document_(document ? document : "") {}

DOMParser::~DOMParser() { delete root_; }

bool DOMParser::parse() {
  delete root_;
  root_ = nullptr;
  XML_Parser parser = XML_ParserCreate("UTF-8");
  if (parser == nullptr) return false;
  BuildState state;
  XML_SetUserData(parser, &state);
  XML_SetElementHandler(parser, onStart, onEnd);
  XML_SetCharacterDataHandler(parser, onText);
  bool ok = XML_Parse(parser, document_.data(), static_cast<int>(document_.size()), 1) == XML_STATUS_OK;
  XML_ParserFree(parser);
  if (!ok || state.root == nullptr) {
    delete state.root;
    return false;
  }
  root_ = state.root;
  return true;
}

}  // namespace HLX

// Utility services of the suite as the service uses them: the host name, whole
// file reads, shell commands with their output, UTF-16 text, and a small DOM
// built on expat for the run-as files. Stateless functions are safe from any
// thread; a String or DOM tree belongs to one thread at a time.
#ifndef QOR_PLATFORM_HLX_H
#define QOR_PLATFORM_HLX_H

#include <string>
#include <vector>

namespace HLX {

// Owns a narrow text allocated with new[]; frees it on destruction.
class CharStar {
 public:
  explicit CharStar(char* owned) : text_(owned) {}
  ~CharStar() { delete[] text_; }
  CharStar(CharStar&& other) noexcept : text_(other.text_) { other.text_ = nullptr; }
  CharStar(const CharStar&) = delete;
  CharStar& operator=(const CharStar&) = delete;
  operator char*() const { return text_; }

 private:
  char* text_;
};

// A text of UTF-16 units.
class String {
 public:
  String() = default;
  String(const char* utf8);  // NOLINT: converting, as the suite's own String does
  static String fromUnits(const char16_t* units, size_t count);
  ~String() = default;

  // The text as UTF-8, in an array the CharStar owns.
  CharStar c_str() const;
  int length() const { return static_cast<int>(units_.size()); }
  // The units, zero-terminated.
  const char16_t* getData() const { return units_.c_str(); }
  // Removes white space at both ends; returns this text.
  String& trim();

 private:
  std::u16string units_;
};

// Reads both pipes of a child until both are closed, so that neither can fill
// up and stall the child, and closes them.
void drainPipes(int outFd, int errFd, std::string& out, std::string& err);

class Util {
 public:
  static String getHostName();
  // Reads a whole file into a new[] buffer, zero-terminated, and sets
  // `contents`; `contents` stays null on failure. Returns true on success.
  static bool readFile(const char* path, char** contents);
  // Runs `command` through `shell -c`, waits for it, and gives its exit code
  // (128 + signal when a signal ended it), its standard output and its
  // standard error. Returns true if the command could be run at all. The last
  // argument is accepted for the suite's signature and has no effect.
  static bool runCommand(const String& shell, int& exitCode, String& output, String& errors,
                         const String& command, bool unused);
};

class DOMElement;

// A node of the tree; only elements exist here, of type 1.
class DOMNode {
 public:
  virtual ~DOMNode() = default;
  virtual int getNodeType() const = 0;
};

// Nodes of a tree, not owned: valid while the parser that built them lives.
class DOMNodeList {
 public:
  unsigned int getLength() const { return static_cast<unsigned int>(nodes_.size()); }
  DOMNode* item(unsigned int index) const { return index < nodes_.size() ? nodes_[index] : nullptr; }
  void append(DOMNode* node) { nodes_.push_back(node); }

 private:
  std::vector<DOMNode*> nodes_;
};

class DOMElement : public DOMNode {
 public:
  explicit DOMElement(std::string tagName) : tagName_(std::move(tagName)) {}
  ~DOMElement() override;
  DOMElement(const DOMElement&) = delete;
  DOMElement& operator=(const DOMElement&) = delete;

  int getNodeType() const override { return 1; }
  const std::string& getTagName() const { return tagName_; }
  // All descendants with this tag, in document order.
  DOMNodeList getElementsByTagName(const char* tagName) const;
  // The element's own character data as UTF-16 units.
  String getElementText() const;

  // Used by the parser while it builds the tree.
  void appendChild(DOMElement* child) { children_.push_back(child); }
  void appendText(const char* utf8, int length) { text_.append(utf8, static_cast<size_t>(length)); }

 private:
  void collect(const char* tagName, DOMNodeList& into) const;

  std::string tagName_;
  std::string text_;  // UTF-8
  std::vector<DOMElement*> children_;
};

class DOMParser {
 public:
  explicit DOMParser(const char* document);
  ~DOMParser();
  DOMParser(const DOMParser&) = delete;
  DOMParser& operator=(const DOMParser&) = delete;

  // True when the document is well-formed; the tree is then available.
  bool parse();
  // The root element, or null before a successful parse.
  DOMElement* getDocument() const { return root_; }

 private:
  std::string document_;
  DOMElement* root_ = nullptr;
};

}  // namespace HLX

#endif  // QOR_PLATFORM_HLX_H

// Text: a shared multi-encoding String, percent-escaping, and a logger holder.
#include <cstdio>
#include <stdexcept>

#include "tour.h"
#include "zelkit3/escape.h"
#include "zelkit3/logger.h"
#include "zelkit3/string.h"

namespace {

using zelkit3::String;

// A caller's logger: counted, prints what it is given.
class PrintingLogger : public zelkit3::ILogger {
 public:
  void logf(int, const char*, ...) override {}
  void log(int priority, const char* message) override { std::printf("   [log %d] %s\n", priority, message); }
  bool isPriorityEnabled(int priority) override { return priority <= 3; }
  long addRef() override { return ++mRefs; }
  long release() override { return --mRefs; }
  long mRefs = 1;
};

int text() {
  int failures = 0;

  // Strings share their text: a copy is one atomic increment.
  const String greeting = String::fromWideChar(L"Hello, ");
  const String name = String::fromWideChar(L"world");
  const String whole = greeting + name;
  const String copy = whole;
  std::printf("   \"%ls\" has %u wide characters; the copy shares its text: %s\n", copy.toWideChar(),
              copy.getLength(), copy.getEncodeSet() == whole.getEncodeSet() ? "yes" : "no");
  failures += whole.getLength() != 12;

  // A String gives back the form it was made from; this build converts nothing.
  const String ascii = String::fromASCII("plain");
  std::printf("   fromASCII(\"plain\").toASCII() = \"%s\", toWideChar() ", ascii.toASCII());
  try {
    ascii.toWideChar();
    std::printf("returned\n");
    ++failures;
  } catch (const std::runtime_error& e) {
    // The documented result: a String made from one form has only that form.
    std::printf("throws \"%s\"\n"
                "   (the expected result: no conversion between encodings here)\n",
                e.what());
  }
  std::printf("   \"apple\" < \"banana\": %s\n",
              String::fromUTF8("apple") < String::fromUTF8("banana") ? "true" : "false");

  // Escaping: only controls, non-ASCII bytes, '%', '&' and '+' change.
  zelkit3::CEscapeDataHelper* escaper = zelkit3::CEscapeDataHelper::getInst();
  const std::string escaped = escaper->escapeData("a+b=100% & caf\xC3\xA9?");
  std::printf("   escapeData: %s\n", escaped.c_str());
  failures += escaped != "a%2Bb=100%25 %26 caf%C3%A9?";

  // The logger holder answers with the idle logger when it holds none.
  PrintingLogger printer;
  zelkit3::LoggerHelper holder(nullptr);
  std::printf("   no logger set: priority 1 enabled? %s\n",
              holder.getLogger()->isPriorityEnabled(1) ? "yes" : "no");
  holder.setLogger(&printer);
  holder.getLogger()->log(1, "written through the caller's logger");
  holder.setLogger(nullptr);
  failures += printer.mRefs != 1;
  return failures == 0 ? 0 : 1;
}

}  // namespace

TOUR_STOP("text and logger", text);

// Uses the installed library the way a separately compiled caller does.
#include <zelkit3/win_emul.h>

int main() {
  using namespace zelkit3::win_emul;
  void* event = CreateEventW(nullptr, 0, 1, L"consumer");
  const bool ok = WaitForSingleObject(event, 0) == WAIT_OBJECT_0 &&
                  WaitForSingleObject(event, 0) == WAIT_TIMEOUT && CloseHandle(event) == 1;
  return ok ? 0 : 1;
}

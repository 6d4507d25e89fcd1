#include "kit/private_registry.h"

#include <string>

#include "kit/testkit.h"
#include "os/registry.h"

#ifdef _WIN32
#include <windows.h>

#include <atomic>
#endif

namespace testkit {

#ifdef _WIN32

namespace {

// The roots a test may touch, and the private keys that stand in for them.
const HKEY kRoots[] = {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER, HKEY_USERS};
const wchar_t* const kStandIns[] = {L"machine", L"user", L"users"};
constexpr wchar_t kPrivateParent[] = L"Software\\TpcsdkTestRegistry";

}  // namespace

struct PrivateRegistry::State {
  std::wstring base;  // below the real current user
  HKEY keys[3] = {nullptr, nullptr, nullptr};
  bool overridden[3] = {false, false, false};
};

PrivateRegistry::PrivateRegistry(const std::filesystem::path&) : state_(std::make_unique<State>()) {
  static std::atomic<unsigned> counter{0};
  state_->base = std::wstring(kPrivateParent) + L"\\" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                 std::to_wstring(counter++);
  HKEY base = nullptr;
  if (RegCreateKeyExW(HKEY_CURRENT_USER, state_->base.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &base,
                      nullptr) != ERROR_SUCCESS)
    return;
  bool ok = true;
  for (int i = 0; i < 3 && ok; ++i)
    ok = RegCreateKeyExW(base, kStandIns[i], 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &state_->keys[i], nullptr) ==
         ERROR_SUCCESS;
  RegCloseKey(base);
  // The keys are all open before the first root is redirected: the private key itself
  // lies below the real current user.
  for (int i = 0; i < 3 && ok; ++i) {
    state_->overridden[i] = RegOverridePredefKey(kRoots[i], state_->keys[i]) == ERROR_SUCCESS;
    ok = state_->overridden[i];
  }
  ok_ = ok;
}

PrivateRegistry::~PrivateRegistry() {
  for (int i = 0; i < 3; ++i) {
    if (state_->overridden[i]) RegOverridePredefKey(kRoots[i], nullptr);
    if (state_->keys[i]) RegCloseKey(state_->keys[i]);
  }
  RegDeleteTreeW(HKEY_CURRENT_USER, state_->base.c_str());
  RegDeleteKeyW(HKEY_CURRENT_USER, state_->base.c_str());
  RegDeleteKeyW(HKEY_CURRENT_USER, kPrivateParent);  // only when no other test's key is left
}

#else

struct PrivateRegistry::State {
  explicit State(const std::filesystem::path& dir) : env(tpcsdk::os::kRegistryDirVariable, dir.string()) {}
  ScopedEnv env;
};

PrivateRegistry::PrivateRegistry(const std::filesystem::path& hive_dir)
    : state_(std::make_unique<State>(hive_dir)), ok_(!hive_dir.empty()) {}

PrivateRegistry::~PrivateRegistry() = default;

#endif

}  // namespace testkit

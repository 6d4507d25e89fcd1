// A registry of the test's own, so that no test reads or deletes a developer's real
// settings.
//
// On Linux the hives move to the given directory (the backend's root directory
// variable). On Windows the local machine, current user and all-users roots of this
// process are redirected to keys below a private key of the current user, which goes
// with the object; the real keys under those roots are never opened. ok() is false
// when the redirection could not be made: a fixture must then write nothing.
#pragma once
#include <filesystem>
#include <memory>

namespace testkit {

class PrivateRegistry {
 public:
  explicit PrivateRegistry(const std::filesystem::path& hive_dir);
  ~PrivateRegistry();
  PrivateRegistry(const PrivateRegistry&) = delete;
  PrivateRegistry& operator=(const PrivateRegistry&) = delete;

  bool ok() const { return ok_; }

 private:
  struct State;
  std::unique_ptr<State> state_;
  bool ok_ = false;
};

}  // namespace testkit

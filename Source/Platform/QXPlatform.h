// QXPlatform.h: how the library reaches the operating system.
//
// Every service that the library needs of the system (heap and pages, files, time and locale,
// faults, fonts, tablet, clipboard, ...) is one small abstract class here, named by its role:
// TQXPlatformClock, TQXPlatformFaults, ... Each role has
//   - a Linux side (Source/Platform/Linux), the real thing, returned by Role::System(), and
//   - a fake (Source/Platform/Fake): in memory, scriptable, able to fail on demand, so that tests
//     reach the branches Linux cannot produce (drive types, tablet drivers, failures).
// Library code asks QXPlatform::Get<Role>() for the role in force; a test installs its fake with
// QXPlatform::ScopedRole and the real one is back when the scope ends. The choice costs one load
// and one branch per call.
//
// Roles are installed and read on one thread at a time, like the rest of the library's
// process-wide state.
#ifndef QXPLATFORM_H
#define QXPLATFORM_H

#include <new>
#include <utility>

namespace QXPlatform {

template <class Role>
struct RoleSlot {
  static inline Role* installed = nullptr;  // null: the system's own implementation
};

// The implementation of Role in force.
template <class Role>
inline Role& Get() {
  Role* r = RoleSlot<Role>::installed;
  return r ? *r : Role::System();
}

// Makes `role` the implementation in force (null puts the system's back) and returns the one it
// replaces, null for the system's.
template <class Role>
inline Role* Install(Role* role) {
  return std::exchange(RoleSlot<Role>::installed, role);
}

// Installs a role for the life of the object.
template <class Role>
class ScopedRole {
 public:
  explicit ScopedRole(Role& role) : previous_(Install<Role>(&role)) {}
  ~ScopedRole() { Install<Role>(previous_); }
  ScopedRole(const ScopedRole&) = delete;
  ScopedRole& operator=(const ScopedRole&) = delete;

 private:
  Role* previous_;
};

// Storage for a role's system implementation: built on first use, never destroyed, so that a
// call during another unit's exit-time destruction still finds it alive.
template <class T>
class NoDestructor {
 public:
  template <class... Args>
  explicit NoDestructor(Args&&... args) {
    new (storage_) T(std::forward<Args>(args)...);
  }
  T& get() { return *std::launder(reinterpret_cast<T*>(storage_)); }

 private:
  alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace QXPlatform

#endif  // QXPLATFORM_H

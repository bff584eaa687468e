/*
 * How the test control API's Reset() reaches every room without knowing any:
 * a room that keeps state the control API can change registers a hook that
 * puts that state back, from a static object in the source file that owns it.
 * Reset() runs the hooks of the highest layer first and the base's last, as
 * the rooms would be taken down (docs/architecture.md, "Rooms of the host
 * platform"). Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_RESET_HOOKS_H
#define TILVANE_PLATFORM_RESET_HOOKS_H

namespace tilvane {
namespace host {

/* Registers `reset` for Reset(); `layer` is the registering room's layer. */
class ResetHook {
public:
    ResetHook(int layer, void (*reset)());
    ResetHook(const ResetHook&) = delete;
    ResetHook& operator=(const ResetHook&) = delete;
};

}  // namespace host
}  // namespace tilvane

#endif

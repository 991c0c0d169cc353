// Giving back the stack pages a thread has no use for.
#pragma once

namespace korva::win {

// Tells the system that the calling thread's stack below its current frame (less a margin for this
// call's own frames) holds nothing it needs: the pages stay committed, and the system may drop what
// they hold and give them back zeroed on their next use. Wine fills almost 1 MB of every new
// thread's stack before the thread runs, and those pages stay resident for the life of a thread
// that never uses them; on Windows a thread's stack is committed as it grows, and there is seldom
// anything to give back. Called by a long-lived thread once it is at its waiting depth, by a thread
// about to end (Wine keeps the stack of the thread that ended last), and at the end of a callback
// on a thread of the system's pool. Does nothing on a stack other than the thread's own as the
// system records it, where the system cannot say (before Windows 8), or where the stack's layout
// is not what it expects. The thread's last error is left as it was.
void ReleaseUnusedStack() noexcept;

}  // namespace korva::win

#pragma once
// `wd64host demo`: every component at work on this machine in about a minute.

namespace Host {

int RunDemo();

}  // namespace Host

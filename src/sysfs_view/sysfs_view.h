// The platform model as a sysfs tree, served over FUSE, so that lspci,
// setpci and any other tool that reads configuration space through sysfs
// runs against the simulated machine unchanged.
//
//   sim::SysfsView view(platform.model_ptr(), "/tmp/lw-sys");
//   // lspci -A linux-sysfs -O sysfs.path=/tmp/lw-sys/bus/pci -vvv
//
// The layout is the kernel's: DIR/devices/pci<segment>:<bus>/ holds each
// root bus's functions, every bridge's folder holds the functions below it,
// and DIR/bus/pci/devices/<dddd:bb:dd.f> links to each function's folder.
// A folder has "config" (4096 bytes, read-write) and the attribute files
// libpci's sysfs method reads: vendor, device, class, revision,
// subsystem_vendor, subsystem_device, irq, resource, numa_node,
// local_cpulist.
//
// Decided here:
// - The functions listed are those present when the view is mounted, as the
//   kernel lists what it found at boot. What happens later (a disabled link,
//   new bus numbers) shows in the config file, which goes to the model on
//   every access: a function the model no longer routes to reads all ones.
// - Config accesses are split as the kernel splits them: an odd byte, an
//   unaligned word, then 4-byte accesses, then a word and a byte. So reads
//   and writes of 1, 2 and 4 aligned bytes reach the model as such, and
//   longer ones as 4-byte accesses. Every file is direct I/O: nothing is
//   cached, every read reaches the model.
// - The attribute files are made at mount from configuration space. The
//   model has no memory or I/O resources and no interrupt routing: every
//   resource line is zero and irq is 0.
// - Accesses come from outside, in real time, so the serving thread follows
//   the model clock's wall-clock time (see ModelClock).
// - The folder must be an empty folder outside /sys, /proc and /dev. A
//   missing one whose parent exists is made, and removed at unmount.
//
// The view is served by a thread of its own and unmounted by the destructor
// or unmount(). For a process killed outright, fusermount3 (package fuse3)
// watches and unmounts; where it is missing the mount stays behind and
// `fusermount3 -u DIR` (or `umount DIR` as root) removes it.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include "simulator/platform_model.h"

namespace sim {

class SysfsViewError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class SysfsView {
public:
    // Mounts and starts serving. Throws SysfsViewError with the reason (a
    // folder that isn't usable, no FUSE on this machine, a failed mount).
    SysfsView(std::shared_ptr<PlatformModel> model, const std::string& folder);
    ~SysfsView();
    SysfsView(const SysfsView&) = delete;
    SysfsView& operator=(const SysfsView&) = delete;

    // Stops serving and unmounts; later calls do nothing.
    void unmount();

    // Where the view is mounted (absolute).
    const std::string& folder() const;
    // The path to give libpci: "<folder>/bus/pci".
    std::string pci_path() const { return folder() + "/bus/pci"; }

    // Why a folder can't hold the view; empty when it can.
    static std::string unusable_folder(const std::string& folder);

    struct State;

private:
    std::unique_ptr<State> _state;
};

}  // namespace sim

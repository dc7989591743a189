#define FUSE_USE_VERSION 31
#include "sysfs_view/sysfs_view.h"

#include <fuse.h>
#include <fuse_lowlevel.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace sim {

namespace {

constexpr unsigned kConfigSize = 4096;
// The kernel lists 7 resources for a function (six BARs and the ROM) and 17
// for a bridge (with its windows).
constexpr unsigned kFunctionResources = 7, kBridgeResources = 17;

struct Node {
    enum class Kind { folder, text, config, link };
    Kind kind = Kind::folder;
    std::vector<std::string> children;  // folders, in listing order
    std::string text;                   // a text file's content, a link's target
    unsigned segment = 0, bus = 0, device = 0, function = 0;  // config
};

std::string hex(unsigned value, int digits) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%0*x\n", digits, value);
    return text;
}

std::string function_name(unsigned segment, unsigned bus, unsigned device, unsigned function) {
    char text[32];
    std::snprintf(text, sizeof(text), "%04x:%02x:%02x.%x", segment, bus, device, function);
    return text;
}

std::string root_bus_name(unsigned segment, unsigned bus) {
    char text[32];
    std::snprintf(text, sizeof(text), "pci%04x:%02x", segment, bus);
    return text;
}

bool inside(const std::filesystem::path& path, const std::filesystem::path& folder) {
    auto [end, unused] = std::mismatch(folder.begin(), folder.end(), path.begin(), path.end());
    (void)unused;
    return end == folder.end();
}

}  // namespace

struct SysfsView::State {
    std::shared_ptr<PlatformModel> model;
    std::string folder;
    std::map<std::string, Node> nodes;  // by path inside the mount, "/" first
    fuse* session = nullptr;
    int stop_fd = -1;
    std::thread server;
    std::mutex unmount_mutex;
    bool mounted = false;
    bool made_folder = false;  // removed again at unmount

    void build();
    void mount();
    void add(const std::string& path, Node node) {
        const auto slash = path.find_last_of('/');
        const std::string parent = slash == 0 ? "/" : path.substr(0, slash);
        nodes[parent].children.push_back(path.substr(slash + 1));
        nodes[path] = std::move(node);
    }
    void serve();

    unsigned read_config(const Node& n, unsigned offset, unsigned width) {
        unsigned value = 0;
        model->config_read(n.segment, n.bus, n.device, n.function, offset, width, value);
        return value;
    }
};

// The tree as the kernel builds it after its scan: each function in the
// folder of the bridge whose secondary bus it sits on, or of its root bus.
void SysfsView::State::build() {
    nodes["/"] = Node{};
    for (const char* path : {"/bus", "/bus/pci", "/bus/pci/devices", "/bus/pci/slots", "/devices"}) add(path, Node{});

    const std::vector<PCIDeviceDetails> functions = model->present_functions();
    std::map<std::pair<unsigned, unsigned>, std::string> bridge_below;  // (segment, secondary bus) -> folder
    std::map<std::string, std::string> folder_of;
    // Scan order puts every bridge before what lies below it.
    for (const PCIDeviceDetails& f : functions) {
        const std::string name = function_name(f.segment, f.bus, f.device, f.function);
        std::string parent;
        const auto below = bridge_below.find({f.segment, f.bus});
        if (below != bridge_below.end()) {
            parent = below->second;
        } else {
            parent = "/devices/" + root_bus_name(f.segment, f.bus);
            if (!nodes.count(parent)) add(parent, Node{});
        }
        const std::string path = parent + "/" + name;
        add(path, Node{});

        Node probe;
        probe.segment = f.segment;
        probe.bus = f.bus;
        probe.device = f.device;
        probe.function = f.function;
        const unsigned ids = read_config(probe, 0x00, 4);
        const unsigned revision_class = read_config(probe, 0x08, 4);
        const bool bridge = (read_config(probe, 0x0E, 1) & 0x7F) == 1;
        const unsigned subsystem = bridge ? 0 : read_config(probe, 0x2C, 4);
        if (bridge) {
            const unsigned secondary = read_config(probe, 0x19, 1);
            if (secondary > f.bus) bridge_below[{f.segment, secondary}] = path;
        }

        Node config = probe;
        config.kind = Node::Kind::config;
        add(path + "/config", config);
        auto text = [&](const char* file, std::string content) {
            Node node;
            node.kind = Node::Kind::text;
            node.text = std::move(content);
            add(path + "/" + file, std::move(node));
        };
        text("vendor", hex(ids & 0xFFFF, 4));
        text("device", hex(ids >> 16, 4));
        text("class", hex(revision_class >> 8, 6));
        text("revision", hex(revision_class & 0xFF, 2));
        text("subsystem_vendor", hex(subsystem & 0xFFFF, 4));
        text("subsystem_device", hex(subsystem >> 16, 4));
        text("irq", "0\n");
        text("numa_node", "-1\n");
        std::string resources;
        for (unsigned i = 0; i < (bridge ? kBridgeResources : kFunctionResources); ++i)
            resources += "0x0000000000000000 0x0000000000000000 0x0000000000000000\n";
        text("resource", resources);

        Node link;
        link.kind = Node::Kind::link;
        link.text = "../../.." + path;
        add("/bus/pci/devices/" + name, std::move(link));
    }
}

namespace {

SysfsView::State& state() { return *static_cast<SysfsView::State*>(fuse_get_context()->private_data); }

const Node* find(const char* path) {
    auto& nodes = state().nodes;
    const auto it = nodes.find(path);
    return it == nodes.end() ? nullptr : &it->second;
}

int view_getattr(const char* path, struct stat* st, fuse_file_info*) {
    const Node* n = find(path);
    if (!n) return -ENOENT;
    std::memset(st, 0, sizeof(*st));
    switch (n->kind) {
    case Node::Kind::folder:
        st->st_mode = S_IFDIR | 0755;
        st->st_nlink = 2;
        break;
    case Node::Kind::link:
        st->st_mode = S_IFLNK | 0777;
        st->st_nlink = 1;
        st->st_size = static_cast<off_t>(n->text.size());
        break;
    case Node::Kind::config:
        st->st_mode = S_IFREG | 0644;
        st->st_nlink = 1;
        st->st_size = kConfigSize;
        break;
    case Node::Kind::text:
        // Its true length (sysfs says one page): the kernel caches these.
        st->st_mode = S_IFREG | 0444;
        st->st_nlink = 1;
        st->st_size = static_cast<off_t>(n->text.size());
        break;
    }
    return 0;
}

int view_readlink(const char* path, char* buffer, size_t size) {
    const Node* n = find(path);
    if (!n) return -ENOENT;
    if (n->kind != Node::Kind::link) return -EINVAL;
    if (size == 0) return -EINVAL;
    const size_t length = std::min(size - 1, n->text.size());
    std::memcpy(buffer, n->text.data(), length);
    buffer[length] = '\0';
    return 0;
}

int view_readdir(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info*, fuse_readdir_flags) {
    const Node* n = find(path);
    if (!n) return -ENOENT;
    if (n->kind != Node::Kind::folder) return -ENOTDIR;
    fill(buffer, ".", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    fill(buffer, "..", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    for (const std::string& child : n->children)
        if (fill(buffer, child.c_str(), nullptr, 0, static_cast<fuse_fill_dir_flags>(0))) break;
    return 0;
}

int view_open(const char* path, fuse_file_info* fi) {
    const Node* n = find(path);
    if (!n) return -ENOENT;
    if (n->kind == Node::Kind::folder) return -EISDIR;
    if ((fi->flags & O_ACCMODE) != O_RDONLY && n->kind != Node::Kind::config) return -EACCES;
    if (fi->flags & O_TRUNC) return -EACCES;
    fi->direct_io = n->kind == Node::Kind::config;
    fi->keep_cache = n->kind == Node::Kind::text;
    fi->fh = reinterpret_cast<uint64_t>(n);
    return 0;
}

// The kernel's split of a config access: an odd byte, an unaligned word,
// whole dwords, then a word and a byte.
template <typename Access>
void split_access(unsigned offset, unsigned size, Access access) {
    if ((offset & 1) && size) {
        access(offset, 1u);
        offset += 1;
        size -= 1;
    }
    if ((offset & 3) && size > 2) {
        access(offset, 2u);
        offset += 2;
        size -= 2;
    }
    while (size > 3) {
        access(offset, 4u);
        offset += 4;
        size -= 4;
    }
    if (size >= 2) {
        access(offset, 2u);
        offset += 2;
        size -= 2;
    }
    if (size) access(offset, 1u);
}

// Past the end a read gives nothing and a write is cut, as the kernel does.
unsigned config_span(off_t offset, size_t size) {
    if (offset < 0 || offset >= static_cast<off_t>(kConfigSize)) return 0;
    return static_cast<unsigned>(std::min<size_t>(size, kConfigSize - static_cast<size_t>(offset)));
}

int view_read(const char*, char* buffer, size_t size, off_t offset, fuse_file_info* fi) {
    const Node& n = *reinterpret_cast<const Node*>(fi->fh);
    if (n.kind == Node::Kind::text) {
        if (offset < 0 || static_cast<size_t>(offset) >= n.text.size()) return 0;
        const size_t length = std::min(size, n.text.size() - static_cast<size_t>(offset));
        std::memcpy(buffer, n.text.data() + offset, length);
        return static_cast<int>(length);
    }
    if (n.kind != Node::Kind::config) return -EINVAL;
    const unsigned span = config_span(offset, size);
    const unsigned start = static_cast<unsigned>(offset);
    SysfsView::State& s = state();
    split_access(start, span, [&](unsigned at, unsigned width) {
        const unsigned value = s.read_config(n, at, width);
        for (unsigned i = 0; i < width; ++i) buffer[at - start + i] = static_cast<char>(value >> (8 * i));
    });
    return static_cast<int>(span);
}

int view_write(const char*, const char* buffer, size_t size, off_t offset, fuse_file_info* fi) {
    const Node& n = *reinterpret_cast<const Node*>(fi->fh);
    if (n.kind != Node::Kind::config) return -EACCES;
    const unsigned span = config_span(offset, size);
    const unsigned start = static_cast<unsigned>(offset);
    SysfsView::State& s = state();
    split_access(start, span, [&](unsigned at, unsigned width) {
        unsigned value = 0;
        for (unsigned i = 0; i < width; ++i)
            value |= static_cast<unsigned>(static_cast<unsigned char>(buffer[at - start + i])) << (8 * i);
        s.model->config_write(n.segment, n.bus, n.device, n.function, at, width, value);
    });
    return static_cast<int>(span);
}

// Opening with O_TRUNC is refused in open; a truncate on its own changes nothing.
int view_truncate(const char* path, off_t, fuse_file_info*) {
    const Node* n = find(path);
    if (!n) return -ENOENT;
    return n->kind == Node::Kind::config ? 0 : -EACCES;
}

void* view_init(fuse_conn_info*, fuse_config* config) {
    // The tree and the attribute files are fixed while the view is mounted,
    // so the kernel may keep names, attributes and texts; config files are
    // direct I/O (see open).
    config->entry_timeout = config->attr_timeout = config->negative_timeout = 3600;
    config->direct_io = 0;
    return fuse_get_context()->private_data;
}

fuse_operations view_operations() {
    fuse_operations ops{};
    ops.getattr = view_getattr;
    ops.readlink = view_readlink;
    ops.open = view_open;
    ops.read = view_read;
    ops.write = view_write;
    ops.truncate = view_truncate;
    ops.readdir = view_readdir;
    ops.init = view_init;
    return ops;
}

}  // namespace

// Our own loop rather than fuse_loop: it also waits on an event, so that
// unmount() can end it at once without a request having to arrive.
void SysfsView::State::serve() {
    model->clock().follow_wall_clock();
    fuse_session* se = fuse_get_session(session);
    fuse_buf buffer{};
    pollfd fds[2] = {{fuse_session_fd(se), POLLIN, 0}, {stop_fd, POLLIN, 0}};
    while (!fuse_session_exited(se)) {
        fds[0].revents = fds[1].revents = 0;
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[1].revents) break;
        if (!(fds[0].revents & POLLIN)) break;  // the mount went away
        const int got = fuse_session_receive_buf(se, &buffer);
        if (got == -EINTR || got == -EAGAIN) continue;
        if (got <= 0) break;
        fuse_session_process_buf(se, &buffer);
    }
    std::free(buffer.mem);
}

std::string SysfsView::unusable_folder(const std::string& folder) {
    namespace fs = std::filesystem;
    std::error_code error;
    if (folder.empty()) return "no folder given";
    const fs::path path = fs::weakly_canonical(fs::absolute(folder), error);
    if (error == std::errc::not_connected)
        return folder + ": a view left behind by a process that was killed; remove it with fusermount3 -u " + folder;
    if (error) return folder + ": " + error.message();
    for (const char* system : {"/sys", "/proc", "/dev"})
        if (inside(path, system)) return folder + ": the view is never mounted inside " + system;
    if (!fs::exists(path, error)) {
        if (!fs::is_directory(path.parent_path(), error)) return folder + ": its parent folder does not exist";
        return "";  // made at mount
    }
    if (!fs::is_directory(path, error)) return folder + ": not a folder";
    if (!fs::is_empty(path, error) || error)
        return folder + ": " + (error ? error.message() : std::string("the folder is not empty"));
    return "";
}

SysfsView::SysfsView(std::shared_ptr<PlatformModel> model, const std::string& folder)
    : _state(std::make_unique<State>()) {
    if (const std::string reason = unusable_folder(folder); !reason.empty()) throw SysfsViewError(reason);
    State& s = *_state;
    s.model = std::move(model);
    if (::access("/dev/fuse", R_OK | W_OK) != 0)
        throw SysfsViewError("/dev/fuse: " + std::string(std::strerror(errno)) + " (FUSE is not available here)");
    std::error_code error;
    s.made_folder = std::filesystem::create_directory(folder, error);
    if (error) throw SysfsViewError(folder + ": " + error.message());
    s.folder = std::filesystem::canonical(folder).string();
    try {
        s.mount();
    } catch (const SysfsViewError&) {
        if (s.made_folder) std::filesystem::remove(s.folder, error);
        throw;
    }
}

void SysfsView::State::mount() {
    State& s = *this;
    s.build();

    // With auto_unmount, fusermount3 stays behind as a watchdog and unmounts
    // the view even when this process is killed outright; without the
    // helper the view is mounted plainly.
    const fuse_operations ops = view_operations();
    for (const char* options : {"-ofsname=lanewright-sim,subtype=sysfs,auto_unmount",
                                "-ofsname=lanewright-sim,subtype=sysfs"}) {
        fuse_args args = FUSE_ARGS_INIT(0, nullptr);
        if (fuse_opt_add_arg(&args, "lanewright-sim") != 0 || fuse_opt_add_arg(&args, options) != 0) {
            fuse_opt_free_args(&args);
            throw SysfsViewError("FUSE: out of memory");
        }
        s.session = fuse_new(&args, &ops, sizeof(ops), &s);
        fuse_opt_free_args(&args);
        if (!s.session) throw SysfsViewError("FUSE: could not set up the file system");
        if (fuse_mount(s.session, s.folder.c_str()) == 0) break;
        fuse_destroy(s.session);
        s.session = nullptr;
    }
    if (!s.session) throw SysfsViewError(s.folder + ": FUSE mount failed (see the message above)");
    s.stop_fd = ::eventfd(0, EFD_CLOEXEC);
    if (s.stop_fd < 0) {
        fuse_unmount(s.session);
        fuse_destroy(s.session);
        throw SysfsViewError(std::string("eventfd: ") + std::strerror(errno));
    }
    s.mounted = true;
    s.server = std::thread([&s] { s.serve(); });
}

SysfsView::~SysfsView() { unmount(); }

const std::string& SysfsView::folder() const { return _state->folder; }

void SysfsView::unmount() {
    State& s = *_state;
    std::lock_guard<std::mutex> guard(s.unmount_mutex);
    if (!s.mounted) return;
    s.mounted = false;
    const uint64_t one = 1;
    if (::write(s.stop_fd, &one, sizeof(one)) < 0) fuse_exit(s.session);
    if (s.server.joinable()) s.server.join();
    fuse_unmount(s.session);
    fuse_destroy(s.session);
    ::close(s.stop_fd);
    s.session = nullptr;
    std::error_code ignored;
    if (s.made_folder) std::filesystem::remove(s.folder, ignored);
}

}  // namespace sim

#define FUSE_USE_VERSION 312

#include "xpon/board_emu/fuse_server.hpp"

#include "file_system.hpp"

#include <fuse3/fuse.h>
#include <fuse3/fuse_lowlevel.h>

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace xpon::board_emu {

namespace {

enum class FileKind { Board, State, Control };

// Per-open state; owned through fuse_file_info::fh from open to release.
struct OpenFile {
  FileKind kind;
  std::string content;  // what reads return: a snapshot taken at offset 0
  std::string pending;  // board-control: patch text written so far, not yet complete
};

ServedFiles& served() {
  return *static_cast<ServedFiles*>(fuse_get_context()->private_data);
}

Emulator& emulator() {
  return served().emulator;
}

OpenFile& open_file(fuse_file_info* info) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): FUSE keeps our pointer in its 64-bit file handle
  return *reinterpret_cast<OpenFile*>(info->fh);
}

bool kind_of(const char* path, FileKind& kind) {
  const std::string_view name(path);
  if (name == "/board" && served().board) {
    kind = FileKind::Board;
  } else if (name == "/board-state.json") {
    kind = FileKind::State;
  } else if (name == "/board-control") {
    kind = FileKind::Control;
  } else {
    return false;
  }
  return true;
}

bool is_blank(const std::string& text) {
  return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

void* fs_init(fuse_conn_info* /*connection*/, fuse_config* config) {
  // Sizes and contents change underneath the kernel, so nothing may be cached.
  config->entry_timeout = 0;
  config->attr_timeout = 0;
  config->negative_timeout = 0;
  config->direct_io = 1;
  return fuse_get_context()->private_data;
}

int fs_getattr(const char* path, struct stat* status, fuse_file_info* /*info*/) {
  std::memset(status, 0, sizeof *status);
  status->st_uid = getuid();
  status->st_gid = getgid();
  status->st_nlink = 1;
  if (std::string_view(path) == "/") {
    status->st_mode = S_IFDIR | 0755;
    status->st_nlink = 2;
    return 0;
  }
  FileKind kind{};
  if (!kind_of(path, kind)) {
    return -ENOENT;
  }
  switch (kind) {
    case FileKind::Board:
      status->st_mode = S_IFREG | 0666;
      break;
    case FileKind::State:
      status->st_mode = S_IFREG | 0444;
      status->st_size = static_cast<off_t>(emulator().state_document().size());
      break;
    case FileKind::Control:
      status->st_mode = S_IFREG | 0664;
      status->st_size = static_cast<off_t>(emulator().control_status().size());
      break;
  }
  return 0;
}

int fs_readdir(const char* path, void* buffer, fuse_fill_dir_t fill, off_t /*offset*/, fuse_file_info* /*info*/,
               fuse_readdir_flags /*flags*/) {
  if (std::string_view(path) != "/") {
    return -ENOTDIR;
  }
  for (const char* name : {".", "..", kBoardFile, kStateFile, kControlFile}) {
    if (std::string_view(name) != kBoardFile || served().board) {
      fill(buffer, name, nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    }
  }
  return 0;
}

int fs_open(const char* path, fuse_file_info* info) {
  FileKind kind{};
  if (!kind_of(path, kind)) {
    return -ENOENT;
  }
  if (kind == FileKind::State && (info->flags & O_ACCMODE) != O_RDONLY) {
    return -EACCES;
  }
  info->fh = reinterpret_cast<std::uint64_t>(new OpenFile{kind, {}, {}});
  info->direct_io = 1;
  info->nonseekable = kind == FileKind::Board ? 1 : 0;
  return 0;
}

int fs_read(const char* /*path*/, char* buffer, size_t size, off_t offset, fuse_file_info* info) {
  OpenFile& file = open_file(info);
  if (offset == 0) {
    switch (file.kind) {
      case FileKind::Board:
        return 0;
      case FileKind::State:
        file.content = emulator().state_document();
        break;
      case FileKind::Control:
        file.content = emulator().control_status();
        break;
    }
  }
  const auto start = static_cast<std::size_t>(offset);
  if (start >= file.content.size()) {
    return 0;
  }
  const std::size_t count = std::min(size, file.content.size() - start);
  // NOLINTNEXTLINE(bugprone-not-null-terminated-result): a read buffer, not a string
  std::memcpy(buffer, file.content.data() + start, count);
  return static_cast<int>(count);
}

// A patch may arrive in several writes; it is applied as soon as the text written so far is a
// complete JSON value, and write() reports a refused patch as EINVAL.
int fs_write(const char* /*path*/, const char* buffer, size_t size, off_t /*offset*/, fuse_file_info* info) {
  OpenFile& file = open_file(info);
  if (file.kind != FileKind::Control) {
    return -EACCES;
  }
  if (file.pending.size() + size > kMaxJsonText) {
    file.pending.clear();
    emulator().refuse_control(fmt::format("the patch is larger than {} bytes", kMaxJsonText));
    return -EFBIG;
  }
  file.pending.append(buffer, size);
  if (is_blank(file.pending) || is_incomplete_json(file.pending)) {
    return static_cast<int>(size);
  }
  const std::string text = std::move(file.pending);
  file.pending.clear();
  if (!emulator().apply_patch_text(text)) {
    return -EINVAL;
  }
  return static_cast<int>(size);
}

int fs_flush(const char* /*path*/, fuse_file_info* info) {
  OpenFile& file = open_file(info);
  if (file.kind == FileKind::Control && !is_blank(file.pending)) {
    file.pending.clear();
    emulator().refuse_control("the patch ended before its JSON text was complete");
    return -EINVAL;
  }
  return 0;
}

int fs_release(const char* /*path*/, fuse_file_info* info) {
  delete &open_file(info);
  return 0;
}

int fs_truncate(const char* path, off_t /*size*/, fuse_file_info* /*info*/) {
  FileKind kind{};
  if (!kind_of(path, kind)) {
    return -ENOENT;
  }
  // Shell redirection truncates board-control before writing; there is nothing to cut.
  return kind == FileKind::State ? -EACCES : 0;
}

int fs_ioctl(const char* /*path*/, unsigned int request, void* /*argument*/, fuse_file_info* info, unsigned int flags,
             void* data) {
  if ((flags & FUSE_IOCTL_DIR) != 0) {
    return -ENOTTY;
  }
  if (open_file(info).kind != FileKind::Board) {
    return -ENOTTY;
  }
  if ((flags & FUSE_IOCTL_COMPAT) != 0) {
    return -ENOSYS;
  }
  return emulator().ioctl(request, data);
}

fuse_operations make_operations() {
  fuse_operations operations{};
  operations.init = fs_init;
  operations.getattr = fs_getattr;
  operations.readdir = fs_readdir;
  operations.open = fs_open;
  operations.read = fs_read;
  operations.write = fs_write;
  operations.flush = fs_flush;
  operations.release = fs_release;
  operations.truncate = fs_truncate;
  operations.ioctl = fs_ioctl;
  return operations;
}

}  // namespace

bool is_incomplete_json(const std::string& text) {
  // Only the syntax matters here, so nothing is built; the parser reports running out of input
  // at the position just past the last byte.
  struct SyntaxOnly : nlohmann::json_sax<Json> {
    bool null() override { return true; }
    bool boolean(bool /*value*/) override { return true; }
    bool number_integer(number_integer_t /*value*/) override { return true; }
    bool number_unsigned(number_unsigned_t /*value*/) override { return true; }
    bool number_float(number_float_t /*value*/, const string_t& /*text*/) override { return true; }
    bool string(string_t& /*value*/) override { return true; }
    bool binary(binary_t& /*value*/) override { return true; }
    bool start_object(std::size_t /*size*/) override { return true; }
    bool key(string_t& /*value*/) override { return true; }
    bool end_object() override { return true; }
    bool start_array(std::size_t /*size*/) override { return true; }
    bool end_array() override { return true; }
    bool parse_error(std::size_t position, const std::string& /*last_token*/,
                     const nlohmann::detail::exception& /*error*/) override {
      ran_out = position > length;
      return false;
    }
    std::size_t length = 0;
    bool ran_out = false;
  };
  SyntaxOnly reader;
  reader.length = text.size();
  return !Json::sax_parse(text, &reader) && reader.ran_out;
}

fuse* mount_files(ServedFiles& files, const std::string& mount_point, const std::string& options,
                  logger::ILogger& logger) {
  static const fuse_operations operations = make_operations();
  // The argument vector is built by libfuse itself so that fuse_opt_free_args can release it;
  // it is kept until the file system is gone.
  struct Arguments {
    fuse_args args = FUSE_ARGS_INIT(0, nullptr);
    ~Arguments() { fuse_opt_free_args(&args); }
  } arguments;
  const std::string mount_options = "fsname=xpon-board-emu,subtype=xpon-board-emu" + options;
  for (const char* word : {"xpon-board-emu", "-o", mount_options.c_str()}) {
    if (fuse_opt_add_arg(&arguments.args, word) != 0) {
      logger.error("cannot build the FUSE arguments");
      return nullptr;
    }
  }
  fuse* filesystem = fuse_new(&arguments.args, &operations, sizeof operations, &files);
  if (filesystem == nullptr) {
    logger.error("cannot create the FUSE file system");
    return nullptr;
  }
  if (fuse_mount(filesystem, mount_point.c_str()) != 0) {
    logger.error("cannot mount at {} (is FUSE available? /dev/fuse and fusermount3 are needed)", mount_point);
    fuse_destroy(filesystem);
    return nullptr;
  }
  return filesystem;
}

void unmount_files(fuse* filesystem) {
  fuse_unmount(filesystem);
  fuse_destroy(filesystem);
}

int serve(Emulator& emulator, const ServeOptions& options, logger::ILogger& logger) {
  ServedFiles files{emulator};
  fuse* filesystem = mount_files(files, options.mount_point, "", logger);
  if (filesystem == nullptr) {
    return kExitMountFailed;
  }
  fuse_session* session = fuse_get_session(filesystem);
  if (fuse_set_signal_handlers(session) != 0) {
    logger.error("cannot install the signal handlers");
    unmount_files(filesystem);
    return kExitFailure;
  }
  // Threads do not survive the fork of daemonizing, so the timeline starts afterwards.
  if (fuse_daemonize(options.foreground ? 1 : 0) != 0) {
    logger.error("cannot detach from the terminal");
    fuse_remove_signal_handlers(session);
    unmount_files(filesystem);
    return kExitFailure;
  }
  logger.logf(logger::kInfo, "serving {}/{}, {}/{} and {}/{}", options.mount_point, kBoardFile, options.mount_point,
              kStateFile, options.mount_point, kControlFile);
  emulator.start_timeline();

  fuse_loop_config* loop = fuse_loop_cfg_create();
  const int result = fuse_loop_mt(filesystem, loop);
  fuse_loop_cfg_destroy(loop);

  emulator.stop_timeline();
  fuse_remove_signal_handlers(session);
  unmount_files(filesystem);
  if (result < 0) {
    logger.error("the FUSE loop failed: {}", std::strerror(-result));
    return kExitFailure;
  }
  logger.logf(logger::kInfo, "unmounted {}", options.mount_point);
  return kExitClean;
}

}  // namespace xpon::board_emu

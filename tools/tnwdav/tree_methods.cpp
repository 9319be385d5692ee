/* MKCOL, DELETE, COPY and MOVE: what they do to files and folders with all below. */
#include <fmt/format.h>
#include <windows.h>

#include <functional>
#include <vector>

#include "dav_path.h"
#include "dav_server.h"
#include "ox_uuid.h"
#include "tools/common/uuid_text.h"
#include "tools/drive/drive_path.h"

namespace tnwdav {
namespace {

/* The name of what is put out of the way while something takes its place; no other one has it. */
std::string aside_of(const std::string& path) {
  ox_u8 id[16];
  ox_uuid_generate(id);
  return path + ".replaced-" + tools::uuid_text(id);
}

std::vector<Item> members_of(const Request& request, const std::string& folder) {
  std::vector<Item> members;
  request.parts.share.list(folder, [&](const Item& item) { members.push_back(item); });
  return members;
}

/* What could not be done of a request, with its answer. */
struct Trouble {
  std::string path;
  bool folder = false;
  Status status = Status::ok;
};
using Troubles = std::vector<Trouble>;

/* Deletes from below; what stays, keeps the folders above it. False: something stayed. */
bool remove_tree(const Request& request, const std::string& path, bool folder, Troubles* troubles) {
  bool emptied = true;
  if (folder) {
    for (const Item& member : members_of(request, path)) {
      emptied &= remove_tree(request, tools::join_path(path, member.name), member.folder, troubles);
    }
  }
  if (!emptied) {
    return false;
  }
  try {
    request.parts.locks.let_files_go(tools::path_key(path));
    request.parts.share.remove(path);
  } catch (const DriveError& error) {
    troubles->push_back({path, folder, status_of_code(error.code())});
    return false;
  }
  request.parts.locks.forget(tools::path_key(path));
  request.parts.properties.removed(tools::path_key(path));
  return true;
}

void copy_content(const Request& request, const std::string& from, const std::string& to) {
  constexpr size_t PIECE = size_t{1024} * 1024;
  OpenFile source(request.parts.share, from, OpenMode::READ);
  OpenFile target(request.parts.share, to, OpenMode::CREATE);
  std::vector<char> piece(PIECE);
  uint64_t offset = 0;
  while (const size_t count = source.read(offset, piece.data(), piece.size())) {
    target.write(offset, piece.data(), count);
    offset += count;
  }
  target.close();
}

void copy_tree(const Request& request, const std::string& from, bool folder, bool deep,
               const std::string& to) {
  if (folder) {
    const std::vector<Item> members = deep ? members_of(request, from) : std::vector<Item>();
    request.parts.share.make_folder(to);
    for (const Item& member : members) {
      copy_tree(request, tools::join_path(from, member.name), member.folder, deep,
                tools::join_path(to, member.name));
    }
  } else {
    copy_content(request, from, to);
  }
  request.parts.properties.copied(tools::path_key(from), tools::path_key(to));
}

void answer_troubles(Request& request, const Troubles& troubles) {
  std::string body = fmt::format("{}<D:multistatus xmlns:D=\"DAV:\">", XML_BEGIN);
  for (const Trouble& trouble : troubles) {
    body += fmt::format("<D:response><D:href>{}</D:href><D:status>{}</D:status></D:response>\n",
                        address_of_path(trouble.path, trouble.folder), status_line(trouble.status));
  }
  request.http.answer(Status::multi_status, body + "</D:multistatus>\n", XML_TYPE);
}

using Work = std::function<void()>;

/* What a COPY or MOVE is asked to do. */
struct Transfer {
  Item source;
  std::string to;
  std::string to_key;
  std::optional<Item> target; /* what is there before */
};

Transfer check_transfer(const Request& request) {
  Transfer transfer{request.item(), request.destination(), {}, {}};
  transfer.to_key = tools::path_key(transfer.to);
  if (transfer.to == request.path || lies_below(transfer.to_key, request.key) ||
      lies_below(request.key, transfer.to_key)) {
    throw HttpError(Status::forbidden, "source and destination are the same, or one in the other");
  }
  request.require_conditions(&transfer.source);
  request.require_parent(transfer.to);
  if (transfer.to_key != request.key) { /* or else it changes the case of letters */
    transfer.target = request.parts.share.find(transfer.to);
  }
  if (transfer.target && !request.overwrites()) {
    throw HttpError(Status::precondition_failed, "the destination is there");
  }
  request.require_tokens_for_tree(transfer.to);
  return transfer;
}

void move_item(const Request& request, const std::string& from, const std::string& to) {
  request.parts.share.rename(from, to);
  const std::string key = tools::path_key(from);
  const std::string new_key = tools::path_key(to);
  if (key != new_key) {
    request.parts.properties.moved(key, new_key);
  }
}

/* `work` makes the destination, where nothing is. When it fails, what it has made is taken away. */
void make_target(const Request& request, const Transfer& transfer, const Work& work) {
  if (transfer.to_key != request.key && request.parts.share.find(transfer.to)) {
    throw HttpError(Status::conflict, "another program has made the destination meanwhile");
  }
  try {
    work();
  } catch (...) {
    Troubles ignored;
    if (transfer.to_key != request.key && request.parts.share.find(transfer.to)) {
      remove_tree(request, transfer.to, transfer.source.folder, &ignored);
    }
    throw;
  }
}

/*
 * What was at the destination is put out of the way before, is put back when the work fails, and is
 * deleted only after its success.
 */
void replace_target(const Request& request, const Transfer& transfer, const Work& work) {
  request.parts.locks.let_files_go(transfer.to_key);
  if (!transfer.target) {
    return make_target(request, transfer, work);
  }
  const std::string aside = aside_of(transfer.to);
  move_item(request, transfer.to, aside);
  try {
    make_target(request, transfer, work);
  } catch (...) {
    move_item(request, aside, transfer.to);
    throw;
  }
  Troubles left;
  remove_tree(request, aside, transfer.target->folder, &left);
}

void answer_transfer(Request& request, const Transfer& transfer) {
  request.parts.locks.forget(transfer.to_key);
  if (transfer.target) {
    return request.http.answer(Status::no_content);
  }
  request.http.set_header("Location", address_of_path(transfer.to, transfer.source.folder));
  request.http.answer(Status::created);
}

}  // namespace

void answer_mkcol(Request& request) {
  if (request.http.has_body()) {
    throw HttpError(Status::unsupported_media_type, "a body has no meaning here");
  }
  const std::optional<Item> item = request.parts.share.find(request.path);
  if (item) {
    throw HttpError(Status::method_not_allowed, "there is something of this name");
  }
  request.require_parent(request.path);
  request.require_conditions(nullptr);
  request.require_tokens_for_change(request.path);
  request.require_tokens_for_member(request.path);
  request.parts.share.make_folder(request.path);
  request.http.answer(Status::created);
}

void answer_delete(Request& request) {
  const Item item = request.item();
  if (request.path == "/") {
    throw HttpError(Status::forbidden, "the drive itself cannot be deleted");
  }
  request.require_conditions(&item);
  request.require_tokens_for_tree(request.path);
  Troubles troubles;
  remove_tree(request, request.path, item.folder, &troubles);
  if (troubles.size() == 1 && troubles[0].path == request.path) {
    throw HttpError(troubles[0].status, "it cannot be deleted");
  }
  if (!troubles.empty()) {
    return answer_troubles(request, troubles);
  }
  request.http.answer(Status::no_content);
}

void answer_copy(Request& request) {
  const Transfer transfer = check_transfer(request);
  const Depth depth = request.depth(Depth::WHOLE_TREE);
  if (depth == Depth::ONE || transfer.to_key == request.key) {
    throw HttpError(Status::bad_request, "a copy has the depth 0 or infinity, and another name");
  }
  replace_target(request, transfer, [&] {
    copy_tree(request, request.path, transfer.source.folder, depth == Depth::WHOLE_TREE,
              transfer.to);
  });
  answer_transfer(request, transfer);
}

void answer_move(Request& request) {
  const Transfer transfer = check_transfer(request);
  if (request.path == "/") {
    throw HttpError(Status::forbidden, "the drive itself cannot be moved");
  }
  request.require_tokens_for_tree(request.path);
  replace_target(request, transfer, [&] {
    request.parts.locks.let_files_go(request.key);
    move_item(request, request.path, transfer.to);
  });
  request.parts.locks.forget(request.key);
  answer_transfer(request, transfer);
}

}  // namespace tnwdav

// Links: framing over a socket, the send queue and the hello handshake.
#include "zelnet/link.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "zelbase/exceptions.h"
#include "zelbase/strings.h"

namespace zelnet::zelp {

link::link(ioctrl& controller, std::size_t frame_limit)
    : controller_(controller), decoder_(frame_limit) {}

link::~link() = default;

void link::fail(const std::string& reason) {
  if (failure_.empty()) failure_ = reason;
}

bool link::attach(zelbase::file& f, unsigned, ioctrl&) {
  file_ = f;
  attached_ = true;
  zelbase::encoder_network opening;
  attach(opening);
  out_.write(opening.data(), opening.size());
  // A socket error here (a refused connect) is kept in failure() and ends the link at the
  // controller's next poll, where the caller waits for it.
  flush();
  return true;
}

bool link::readable(zelbase::file& f, unsigned flags, ioctrl& c) {
  for (;;) {
    const ssize_t n = ::recv(f.descriptor(), c.buffer(), c.capacity(), 0);
    if (n >= 0) return read(f, flags, c.buffer(), static_cast<std::size_t>(n), c);
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return true;
    fail(zelbase::string_with_format("cannot receive: %s", std::strerror(errno)));
    return false;
  }
}

bool link::read(zelbase::file& f, unsigned, const char* buffer, std::size_t size, ioctrl& c) {
  if (size == 0) {
    if (decoder_.buffered() > 0) {
      fail(zelbase::string_with_format(
          "the peer closed the connection in the middle of a frame (%zu of %zu bytes received)",
          decoder_.buffered(), decoder_.expected() == 0 ? frame_header_size : decoder_.expected()));
    } else if (!established_) {
      fail("the peer closed the connection during the handshake");
    }
    return false;
  }
  decoder_.feed(buffer, size);
  return handle_frames(f, c);
}

bool link::has_pending_input() const { return unfinished_; }

bool link::resume(zelbase::file& f, unsigned, ioctrl& c) { return handle_frames(f, c); }

void link::packet_ahead(const packet&) {}

void link::decode_ahead() {
  if (!established_ || closing_ || !decoder_.has_frame()) return;
  std::string_view frame;
  decoder_.next(frame);
  try {
    ahead_ = decode_packet(frame.data(), frame.size(), decode_cap_);
  } catch (const zelbase::es::base& e) {
    ahead_failure_ = e.message();
    return;
  }
  ahead_size_ = frame.size();
  packet_ahead(*ahead_);
}

bool link::handle_frames(zelbase::file& f, ioctrl& c) {
  // Stays set when a callback raises or ends the caller's wait: the frames after it are handled
  // at the next wait or run, or by a wait inside a callback, without waiting for more bytes.
  // Stopping after a packet whose callback aborted the wait lets the caller act on the packet it
  // waited for (a sync reply) before any packet that the peer sent after it.
  unfinished_ = true;
  while (!closing_) {
    packet in;
    try {
      if (!ahead_failure_.empty()) {
        fail(ahead_failure_);
        ahead_failure_.clear();
        break;
      }
      if (ahead_) {
        in = std::move(*ahead_);
        ahead_.reset();
        decoder_.admit(ahead_size_);
      } else {
        std::string_view frame;
        if (!decoder_.next(frame)) break;
        if (!established_) {
          zelbase::encoder_network answer;
          handle(frame, answer);
          out_.write(answer.data(), answer.size());
          if (!failure_.empty()) break;
          continue;
        }
        in = decode_packet(frame.data(), frame.size(), decode_cap_);
      }
    } catch (const zelbase::es::base& e) {
      fail(e.message());
      break;
    }
    // Decoding the next packet before this one is handled lets a subclass start on what that
    // one needs (packet_ahead) while this one's work hides the wait.
    decode_ahead();
    packet out;
    packet_received(in, out);
    // The callback may have dropped this link (a disconnect from a handler).
    if (!c.watches(f, *this)) {
      unfinished_ = false;
      ahead_.reset();
      ahead_failure_.clear();
      return true;
    }
    if (!out.get_name().empty()) send(out);
    if (c.aborted()) return flush();
  }
  unfinished_ = false;
  return flush();
}

bool link::wants_write() const { return out_pos_ < out_.size() || closing_ || !failure_.empty(); }

bool link::write(zelbase::file&, ioctrl&) { return flush(); }

bool link::flush() {
  if (!failure_.empty()) return false;
  while (out_pos_ < out_.size()) {
    const ssize_t n =
        ::send(file_.descriptor(), out_.data() + out_pos_, out_.size() - out_pos_, MSG_NOSIGNAL);
    if (n > 0) {
      out_pos_ += static_cast<std::size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOTCONN)) {
      return true;
    } else {
      fail(zelbase::string_with_format("cannot send: %s", std::strerror(errno)));
      return false;
    }
  }
  empty_queue();
  return !closing_;
}

void link::empty_queue() {
  // A queue that held a large frame (a snapshot) is given back rather than kept for small ones.
  if (out_.capacity() > retained_queue) {
    out_.release();
  } else {
    out_.clear();
  }
  out_pos_ = 0;
}

void link::send(const packet& p) {
  if (out_pos_ == out_.size()) empty_queue();
  // Encoded straight into the queue: a frame of hundreds of megabytes is never copied.
  append_packet_frame(p, out_);
  flush_when_open();
  controller_.update_watches();
}

void link::send_raw(const std::string& bytes) {
  if (out_pos_ == out_.size()) empty_queue();
  out_.write(bytes.data(), bytes.size());
  flush_when_open();
  controller_.update_watches();
}

void link::flush_when_open() {
  // A failed write is kept in failure(); the controller drops the link at its next poll.
  if (attached_ && established_) flush();
}

client_link::client_link(ioctrl& controller, std::uint32_t version, std::size_t frame_limit)
    : link(controller, frame_limit), version_(version) {}

client_link::~client_link() = default;

std::size_t client_link::attach(zelbase::encoder_network& out) {
  const std::string hello = encode_hello_frame(version_);
  out.write(hello.data(), hello.size());
  return hello.size();
}

std::size_t client_link::handle(std::string_view frame, zelbase::encoder_network&) {
  const std::uint32_t server_version = decode_hello(frame.data(), frame.size());
  if (server_version == version_) {
    established();
    link_established();
  } else {
    version_mismatch(version_, server_version);
    fail(zelbase::string_with_format(
        "protocol version mismatch: the server speaks version %u, this client version %u",
        server_version, version_));
  }
  return 0;
}

void client_link::version_mismatch(std::uint32_t, std::uint32_t) {}

void client_link::link_established() {}

server_link::server_link(ioctrl& controller, std::uint32_t version, std::size_t frame_limit)
    : link(controller, frame_limit), version_(version) {}

server_link::~server_link() = default;

std::size_t server_link::attach(zelbase::encoder_network&) { return 0; }

std::size_t server_link::handle(std::string_view frame, zelbase::encoder_network& out) {
  client_version_ = decode_hello(frame.data(), frame.size());
  const std::string hello = encode_hello_frame(version_);
  out.write(hello.data(), hello.size());
  if (client_version_ == version_) {
    established();
  } else {
    close_after_flush();
  }
  return hello.size();
}

}  // namespace zelnet::zelp

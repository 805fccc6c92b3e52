// Links carry zelp packets over a watched socket: link moves bytes through the frame codec,
// client_link and server_link add the two sides of the hello handshake. All calls happen on
// the thread that serves the controller (inside its wait(), run() or step()); send() may also be
// called between them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "zelbase/encoder_network.h"
#include "zelbase/file.h"
#include "zelnet/codec.h"
#include "zelnet/export.h"
#include "zelnet/ioctrl.h"
#include "zelnet/packet.h"

namespace zelnet::zelp {

class ZELNET_EXPORT link : public ioctrl::hdlr {
 public:
  // `frame_limit` bounds the payload of each received frame.
  explicit link(ioctrl& controller, std::size_t frame_limit = default_frame_limit);
  ~link() override;

  void set_file(const zelbase::file& f) noexcept { file_ = f; }
  void set_host(const std::string& host) { host_ = host; }
  const zelbase::file& get_file() const noexcept { return file_; }
  const std::string& get_host() const noexcept { return host_; }
  ioctrl& get_controller() const noexcept { return controller_; }
  bool is_established() const noexcept { return established_; }
  // The payload limit of received frames; a change applies from the next frame on (and to the
  // frame in progress when its payload is still incomplete).
  std::size_t frame_limit() const noexcept { return decoder_.limit(); }
  void set_frame_limit(std::size_t limit) noexcept { decoder_.set_limit(limit); }
  // The memory that decoding a received packet may take per payload byte (default 32; 0: no
  // cap); a packet above it drops the link. So a link never holds more than the frame limit
  // times the cap for one packet. A change applies from the next packet decoded on.
  std::size_t decode_cap() const noexcept { return decode_cap_; }
  void set_decode_cap(std::size_t bytes_per_byte) noexcept { decode_cap_ = bytes_per_byte; }
  // Why the link dropped itself (a protocol or socket error); empty while nothing failed and
  // when the peer closed cleanly between frames.
  const std::string& failure() const noexcept { return failure_; }

  // Queues the opening bytes (attach(encoder)) and starts writing.
  bool attach(zelbase::file& f, unsigned flags, ioctrl& c) override;
  bool readable(zelbase::file& f, unsigned flags, ioctrl& c) override;
  // Cuts the bytes into frames: handshake frames go to handle(), packets to packet_received();
  // a reply that packet_received leaves in `out` (a non-empty name) is sent back.
  bool read(zelbase::file& f, unsigned flags, const char* buffer, std::size_t size,
            ioctrl& c) override;
  bool wants_write() const override;
  bool write(zelbase::file& f, ioctrl& c) override;
  bool has_pending_input() const override;
  bool resume(zelbase::file& f, unsigned flags, ioctrl& c) override;

  // Queues `p` and writes at once what the socket takes; the rest goes out inside wait(), step() or
  // run(). Raises es::arg when the packet does not fit in a frame.
  virtual void send(const packet& p);
  // Queues bytes as they are (fault injection and tests).
  void send_raw(const std::string& bytes);
  // Drops the link once the queued bytes are written.
  void close_after_flush() noexcept { closing_ = true; }

 protected:
  // Writes the bytes that open the link into `out`; returns their number.
  virtual std::size_t attach(zelbase::encoder_network& out) = 0;
  // A packet arrived after the handshake; `out` may be filled with a reply.
  virtual bool packet_received(const packet& in, packet& out) = 0;
  // Called before packet_received when the packet after it had arrived whole too and has been
  // decoded already: a hint for work that may start early, such as fetching into cache what
  // that packet will touch. It must change nothing that the packet handled first could see.
  // The default does nothing.
  virtual void packet_ahead(const packet& next);
  // A frame arrived during the handshake; writes any answer into `out` and returns its size.
  // Calls established() or fail() when the handshake ends.
  virtual std::size_t handle(std::string_view frame, zelbase::encoder_network& out) = 0;

  void established() noexcept { established_ = true; }
  void fail(const std::string& reason);

 private:
  // Writes queued bytes until the socket would block; false on a socket error or when a
  // requested close is due.
  bool flush();
  void flush_when_open();
  // Empties the sent queue, giving back a buffer larger than retained_queue.
  void empty_queue();
  static constexpr std::size_t retained_queue = std::size_t{1} << 20;
  // Hands each whole frame received to handle() or packet_received().
  bool handle_frames(zelbase::file& f, ioctrl& c);
  // Decodes the next frame into ahead_ when it is whole and within the limit, and tells
  // packet_ahead; a frame that fails to decode is kept as ahead_failure_, so that the packet
  // before it is handled first, as it would be without looking ahead.
  void decode_ahead();

  ioctrl& controller_;
  zelbase::file file_;
  std::string host_;
  std::size_t decode_cap_ = default_decode_cap;
  frame_decoder decoder_;
  zelbase::encoder_network out_;  // the send queue; bytes before out_pos_ are written
  std::size_t out_pos_ = 0;
  bool attached_ = false;
  bool established_ = false;
  bool closing_ = false;
  bool unfinished_ = false;  // inside handle_frames, or left by a callback that raised
  std::string failure_;
  // The packet after the one being handled, decoded ahead, or the reason its frame could not be
  // decoded (non-empty ahead_failure_); the frame's payload size is checked against the limit
  // again when its turn comes, as a limit changed meanwhile would apply to it.
  std::optional<packet> ahead_;
  std::size_t ahead_size_ = 0;
  std::string ahead_failure_;
};

// The connecting side: sends its hello first and checks the server's.
class ZELNET_EXPORT client_link : public link {
 public:
  explicit client_link(ioctrl& controller, std::uint32_t version = protocol_version,
                       std::size_t frame_limit = default_frame_limit);
  ~client_link() override;

 protected:
  std::size_t attach(zelbase::encoder_network& out) override;
  std::size_t handle(std::string_view frame, zelbase::encoder_network& out) override;
  // The server answered with another version; the link drops itself afterwards.
  virtual void version_mismatch(std::uint32_t client_version, std::uint32_t server_version);
  // The server accepted the version; packets flow from now on.
  virtual void link_established();

 private:
  std::uint32_t version_;
};

// The accepting side: answers the client's hello with its own version, and closes after the
// answer when the versions differ.
class ZELNET_EXPORT server_link : public link {
 public:
  explicit server_link(ioctrl& controller, std::uint32_t version = protocol_version,
                       std::size_t frame_limit = default_frame_limit);
  ~server_link() override;

  // The version that the next hello is answered with.
  void set_version(std::uint32_t version) noexcept { version_ = version; }
  std::uint32_t client_version() const noexcept { return client_version_; }

 protected:
  std::size_t attach(zelbase::encoder_network& out) override;
  std::size_t handle(std::string_view frame, zelbase::encoder_network& out) override;

 private:
  std::uint32_t version_;
  std::uint32_t client_version_ = 0;
};

}  // namespace zelnet::zelp

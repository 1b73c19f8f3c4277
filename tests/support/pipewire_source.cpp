#include "support/pipewire_source.h"

#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/buffers.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

#include <array>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "support/eventually.h"

namespace ox::test {
namespace {

constexpr uint32_t kPixelBytes = 4;
constexpr int kBuffers = 4;
constexpr int kPerSecond = 61;

// A macro with casts and a statement expression of its own.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wpedantic"
pw_proxy* create_link(pw_core& core, const spa_dict& props) {
    return static_cast<pw_proxy*>(pw_core_create_object(
        &core, "link-factory", PW_TYPE_INTERFACE_Link, PW_VERSION_LINK, &props, 0));
}
#pragma GCC diagnostic pop

}  // namespace

PipewireSource::PipewireSource(const std::string& socket, ScreenPictures pictures, Setup setup)
    : pictures_(std::move(pictures)), setup_(setup) {
    pw_init(nullptr, nullptr);
    static const pw_stream_events kEvents = [] {
        pw_stream_events events{};
        events.version = PW_VERSION_STREAM_EVENTS;
        events.state_changed = [](void* self, pw_stream_state, pw_stream_state state, const char*) {
            static_cast<PipewireSource*>(self)->streaming_ = state == PW_STREAM_STATE_STREAMING;
        };
        events.param_changed = [](void* self, uint32_t id, const spa_pod* param) {
            if (id == SPA_PARAM_Format) static_cast<PipewireSource*>(self)->format_changed(param);
        };
        events.process = [](void* self) { static_cast<PipewireSource*>(self)->process(); };
        return events;
    }();
    loop_ = pw_thread_loop_new("source", nullptr);
    pw_loop* inner = pw_thread_loop_get_loop(loop_);
    stream_ = pw_stream_new_simple(inner, "test-screen",
                                   pw_properties_new(PW_KEY_MEDIA_CLASS, "Video/Source",
                                                     PW_KEY_REMOTE_NAME, socket.c_str(), nullptr),
                                   &kEvents, this);
    pictures_(picture_);
    offer_format(true);
    spa_source* timer = pw_loop_add_timer(
        inner, [](void* self, uint64_t) { static_cast<PipewireSource*>(self)->tick(); }, this);
    timespec period{.tv_sec = 0, .tv_nsec = 1'000'000'000L / kPerSecond};
    pw_loop_update_timer(inner, timer, &period, &period, false);
    pw_thread_loop_start(loop_);
    const bool known = eventually(
        [this] {
            pw_thread_loop_lock(loop_);
            node_ = pw_stream_get_node_id(stream_);
            pw_thread_loop_unlock(loop_);
            return node_ != SPA_ID_INVALID;
        },
        std::chrono::seconds(30));
    if (!known) throw std::runtime_error("the daemon does not make a node");
}

PipewireSource::~PipewireSource() {
    pw_thread_loop_stop(loop_);
    for (pw_proxy* link : links_)
        pw_proxy_destroy(link);
    pw_stream_destroy(stream_);
    pw_thread_loop_destroy(loop_);
}

void PipewireSource::link_to(const char* consumer) {
    const std::string node = std::to_string(node_);
    pw_thread_loop_lock(loop_);
    for (const char* port : {"in_0", "input_1"}) {  // of PipeWire 0.3 and 1
        const spa_dict_item ends[] = {{PW_KEY_LINK_OUTPUT_NODE, node.c_str()},
                                      {PW_KEY_LINK_INPUT_NODE, consumer},
                                      {PW_KEY_LINK_INPUT_PORT, port}};
        links_.push_back(create_link(*pw_stream_get_core(stream_), {0, std::size(ends), ends}));
    }
    pw_thread_loop_unlock(loop_);
}

/// As compositors do: the picture's size, no fixed rate.
void PipewireSource::offer_format(bool at_first) {
    negotiated_ = false;
    width_ = picture_.width;
    height_ = picture_.height;
    spa_video_info_raw info{};
    info.format =
        setup_.layout != 0 ? static_cast<spa_video_format>(setup_.layout) : SPA_VIDEO_FORMAT_BGRx;
    info.size = {width_, height_};
    info.framerate = {0, 1};
    std::array<uint8_t, 1024> memory;
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    const spa_pod* params[] = {spa_format_video_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
    constexpr auto kFlags =
        static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS);
    if (at_first) {
        pw_stream_connect(stream_, PW_DIRECTION_OUTPUT, PW_ID_ANY, kFlags, params, 1);
    } else {
        pw_stream_update_params(stream_, params, 1);
    }
}

void PipewireSource::format_changed(const spa_pod* param) {
    spa_video_info_raw info{};
    if (param == nullptr || spa_format_video_raw_parse(param, &info) < 0) return;
    negotiated_ = info.size.width == width_ && info.size.height == height_;
    if (setup_.stalls) streaming_ = false;
    const auto stride = static_cast<int>(width_ * kPixelBytes + setup_.padding);
    std::array<uint8_t, 1024> memory;
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    spa_pod_frame object{};
    spa_pod_builder_push_object(&builder, &object, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers);
    spa_pod_builder_add(&builder, SPA_PARAM_BUFFERS_buffers, SPA_POD_Int(kBuffers),
                        SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size,
                        SPA_POD_Int(stride * static_cast<int>(height_)), SPA_PARAM_BUFFERS_stride,
                        SPA_POD_Int(stride), 0);
    const auto* buffers = static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &object));
    spa_pod_builder_push_object(&builder, &object, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta);
    spa_pod_builder_add(&builder, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoTransform),
                        SPA_PARAM_META_size,
                        SPA_POD_Int(static_cast<int>(sizeof(spa_meta_videotransform))), 0);
    const spa_pod* params[] = {buffers,
                               static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &object))};
    pw_stream_update_params(stream_, params, 2);
}

void PipewireSource::tick() {
    if (!streaming_) return;
    if (pending_blanks_ == 0) {
        if (!pictures_(picture_)) return;
        if (setup_.blanks) pending_blanks_ = 3;
    }
    if (picture_.width != width_ || picture_.height != height_) return offer_format(false);
    pw_stream_trigger_process(stream_);
}

void PipewireSource::process() {
    if (!negotiated_) return;
    pw_buffer* buffer = pw_stream_dequeue_buffer(stream_);
    if (buffer == nullptr) return;
    fill(buffer->buffer->datas[0]);
    if (void* meta = spa_buffer_find_meta_data(buffer->buffer, SPA_META_VideoTransform,
                                               sizeof(spa_meta_videotransform))) {
        static_cast<spa_meta_videotransform*>(meta)->transform = setup_.transform;
    }
    pw_stream_queue_buffer(stream_, buffer);
}

void PipewireSource::fill(spa_data& block) {
    const uint32_t stride = width_ * kPixelBytes + setup_.padding;
    *block.chunk = {.offset = 0,
                    .size = stride * height_,
                    .stride = static_cast<int32_t>(stride),
                    .flags = SPA_CHUNK_FLAG_NONE};
    if (block.maxsize < stride * height_) return;  // of the previous size
    std::memset(block.data, 0x5A, block.maxsize);  // must never be visible
    if (pending_blanks_ > 0 && --pending_blanks_ > 0) {
        pending_blanks_ == 2 ? block.chunk->size = 0
                             : block.chunk->flags = SPA_CHUNK_FLAG_CORRUPTED;
        return;
    }
    const size_t row_bytes = size_t{width_} * kPixelBytes;
    for (uint32_t y = 0; y < height_; ++y)
        std::memcpy(static_cast<uint8_t*>(block.data) + size_t{y} * stride,
                    picture_.pixels() + y * row_bytes, row_bytes);
}

}  // namespace ox::test

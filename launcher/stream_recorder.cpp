#include "launcher/stream_recorder.h"

extern "C" {
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <array>
#include <utility>

#include "base/c_handle.h"
#include "launcher/client/av_handles.h"

namespace ox::launcher {

namespace {

using ParserPtr = CHandle<AVCodecParserContext, av_parser_close>;

struct FilterDeleter {
    void operator()(AVBSFContext* p) const noexcept { av_bsf_free(&p); }
};
struct FormatDeleter {
    void operator()(AVFormatContext* p) const noexcept {
        avio_closep(&p->pb);
        avformat_free_context(p);
    }
};

constexpr int kSampleRate = 48000;
constexpr uint16_t kPreSkip = 120;  // 2.5 ms: what the encoder looks ahead

constexpr std::array<uint8_t, 19> kOpusHead = {
    'O',
    'p',
    'u',
    's',
    'H',
    'e',
    'a',
    'd',
    1,  // version
    2,  // channels
    kPreSkip & 0xFF,
    kPreSkip >> 8,
    kSampleRate & 0xFF,
    (kSampleRate >> 8) & 0xFF,
    0,
    0,
    0,
    0,  // gain
    0,  // channel mapping: stereo
};

// The parameter sets in front of a keyframe, for the file's header.
std::vector<uint8_t> parameter_sets(const AVCodecParameters& parameters, AVPacket& packet) {
    AVBSFContext* made = nullptr;
    if (av_bsf_alloc(av_bsf_get_by_name("extract_extradata"), &made) < 0) return {};
    const std::unique_ptr<AVBSFContext, FilterDeleter> filter(made);
    if (avcodec_parameters_copy(filter->par_in, &parameters) < 0) return {};
    if (av_bsf_init(filter.get()) < 0) return {};
    const AvPtr<AVPacket> copy(av_packet_clone(&packet));
    if (!copy || av_bsf_send_packet(filter.get(), copy.get()) < 0) return {};
    const AvPtr<AVPacket> filtered(av_packet_alloc());
    if (!filtered || av_bsf_receive_packet(filter.get(), filtered.get()) < 0) return {};
    size_t size = 0;
    const uint8_t* bytes =
        av_packet_get_side_data(filtered.get(), AV_PKT_DATA_NEW_EXTRADATA, &size);
    return bytes == nullptr ? std::vector<uint8_t>{} : std::vector<uint8_t>(bytes, bytes + size);
}

// Picture size from the parameter sets in `packet`; false when there is none.
bool picture_size(AVCodecID codec, const AVPacket& packet, int& width, int& height) {
    const ParserPtr parser(av_parser_init(codec));
    const AvPtr<AVCodecContext> context(avcodec_alloc_context3(avcodec_find_decoder(codec)));
    if (!parser || !context) return false;
    parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    uint8_t* out = nullptr;
    int out_size = 0;
    av_parser_parse2(parser.get(), context.get(), &out, &out_size, packet.data, packet.size,
                     AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    width = parser->width;
    height = parser->height;
    return width > 0 && height > 0;
}

AvPtr<AVPacket> packet_of(const std::vector<uint8_t>& bytes, bool keyframe) {
    AvPtr<AVPacket> packet(av_packet_alloc());
    if (!packet || bytes.size() > INT32_MAX / 2 ||
        av_new_packet(packet.get(), static_cast<int>(bytes.size())) < 0)
        return nullptr;
    std::ranges::copy(bytes, packet->data);
    if (keyframe) packet->flags |= AV_PKT_FLAG_KEY;
    return packet;
}

// Adds a stream of 48 kHz stereo Opus (RFC 7845). Null when memory runs out.
AVStream* add_opus_stream(AVFormatContext& format) {
    AVStream* stream = avformat_new_stream(&format, nullptr);
    auto* head = static_cast<uint8_t*>(av_mallocz(kOpusHead.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (stream == nullptr || head == nullptr) {
        av_free(head);
        return nullptr;
    }
    std::ranges::copy(kOpusHead, head);
    AVCodecParameters& parameters = *stream->codecpar;
    parameters.extradata = head;  // freed with the stream
    parameters.extradata_size = static_cast<int>(kOpusHead.size());
    parameters.codec_type = AVMEDIA_TYPE_AUDIO;
    parameters.codec_id = AV_CODEC_ID_OPUS;
    parameters.sample_rate = kSampleRate;
    parameters.initial_padding = kPreSkip;
    av_channel_layout_default(&parameters.ch_layout, 2);
    stream->time_base = {1, 1000};
    return stream;
}

}  // namespace

struct StreamRecorder::Impl {
    std::unique_ptr<AVFormatContext, FormatDeleter> format;
    AVCodecID codec = AV_CODEC_ID_NONE;
    bool sound = false;
    bool header_written = false;
    uint64_t start_timestamp = 0;  ///< capture time of time 0, agent's clock in us
    uint64_t previous_arrival = 0;
    int64_t previous_ms = -1;
    AudioClock audio_clock;
    int64_t previous_audio_ms = -1;
};

StreamRecorder::StreamRecorder() = default;
StreamRecorder::~StreamRecorder() = default;

bool StreamRecorder::fail(const std::string& what) {
    if (error_.empty()) error_ = what;
    return false;
}

StreamRecorder::Counts StreamRecorder::counts() const {
    const MutexLock lock(mutex_);
    return counts_;
}

bool StreamRecorder::open(const std::string& path, const Tracks& tracks, std::string& error) {
    const MutexLock lock(mutex_);
    auto impl = std::make_unique<Impl>();
    impl->codec = codec_id(tracks.codec);
    impl->sound = tracks.sound;
    AVFormatContext* made = nullptr;
    int result = avformat_alloc_output_context2(&made, nullptr, "matroska", path.c_str());
    impl->format.reset(made);
    if (result >= 0) result = avio_open(&made->pb, ("file:" + path).c_str(), AVIO_FLAG_WRITE);
    if (result < 0) {
        error = "cannot write " + path + ": " + av_error_text(result);
        return false;
    }
    impl_ = std::move(impl);
    return true;
}

bool StreamRecorder::write_header(const AssembledFrame& keyframe) {
    Impl& impl = *impl_;
    const AvPtr<AVPacket> packet = packet_of(keyframe.data, true);
    AVStream* stream = packet ? avformat_new_stream(impl.format.get(), nullptr) : nullptr;
    if (stream == nullptr) return fail("cannot record: out of memory");
    AVCodecParameters& parameters = *stream->codecpar;
    parameters.codec_type = AVMEDIA_TYPE_VIDEO;
    parameters.codec_id = impl.codec;
    const auto sets = parameter_sets(parameters, *packet);
    if (sets.empty() || !picture_size(impl.codec, *packet, parameters.width, parameters.height))
        return fail("cannot record: the keyframe has no parameter sets");
    auto* extradata = static_cast<uint8_t*>(av_mallocz(sets.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (extradata == nullptr) return fail("cannot record: out of memory");
    std::ranges::copy(sets, extradata);
    parameters.extradata = extradata;  // freed with the stream
    parameters.extradata_size = static_cast<int>(sets.size());
    stream->time_base = {1, 1000};
    if (impl.sound && add_opus_stream(*impl.format) == nullptr)
        return fail("cannot record: out of memory");
    // How long pictures wait for sound, which may be late or absent.
    impl.format->max_interleave_delta = 1'000'000;
    if (const int result = avformat_write_header(impl.format.get(), nullptr); result < 0)
        return fail("cannot write the recording: " + av_error_text(result));
    impl.header_written = true;
    return true;
}

// Capture time since the first frame. A frame without a capture time is placed by its arrival;
// times always grow.
int64_t StreamRecorder::presentation_ms(const AssembledFrame& frame) {
    Impl& impl = *impl_;
    const bool first = impl.previous_ms < 0;
    int64_t ms = 0;
    if (!first) {
        const auto since_previous = static_cast<int64_t>(frame.completed - impl.previous_arrival);
        ms = impl.previous_ms + since_previous / 1000;
    }
    if (frame.timestamp != 0) {
        if (impl.start_timestamp == 0)
            impl.start_timestamp = frame.timestamp - static_cast<uint64_t>(ms) * 1000;
        ms = static_cast<int64_t>(frame.timestamp - impl.start_timestamp) / 1000;
    }
    ms = std::max(ms, impl.previous_ms + 1);
    impl.previous_ms = ms;
    impl.previous_arrival = frame.completed;
    return ms;
}

bool StreamRecorder::write_packet(AVPacket& packet, int stream, int64_t ms) {
    AVFormatContext& format = *impl_->format;
    packet.stream_index = stream;
    packet.pts = packet.dts = ms;
    av_packet_rescale_ts(&packet, {1, 1000}, format.streams[stream]->time_base);
    // With sound, libavformat sorts the two streams by time.
    const int result = impl_->sound ? av_interleaved_write_frame(&format, &packet)
                                    : av_write_frame(&format, &packet);
    return result >= 0 || fail("cannot write the recording: " + av_error_text(result));
}

void StreamRecorder::write(const AssembledFrame& frame) {
    const MutexLock lock(mutex_);
    if (!impl_ || !error_.empty()) return;
    if (!impl_->header_written && (!frame.keyframe || !write_header(frame))) return;
    const AvPtr<AVPacket> packet = packet_of(frame.data, frame.keyframe);
    if (!packet)
        fail("cannot record: out of memory");
    else if (write_packet(*packet, 0, presentation_ms(frame)))
        ++counts_.frames;
}

void StreamRecorder::write_audio(const AudioFrame& frame) {
    const MutexLock lock(mutex_);
    if (!impl_ || !impl_->sound || !error_.empty()) return;
    const auto time = impl_->audio_clock.capture_time(frame);
    if (!time || impl_->start_timestamp == 0 || *time < impl_->start_timestamp) return;
    // Times always grow, also where the clock was set back.
    const int64_t ms = std::max(static_cast<int64_t>(*time - impl_->start_timestamp) / 1000,
                                impl_->previous_audio_ms + 1);
    const AvPtr<AVPacket> packet = packet_of(frame.opus, true);
    if (!packet || !write_packet(*packet, 1, ms)) return;
    impl_->previous_audio_ms = ms;
    ++counts_.audio_frames;
}

bool StreamRecorder::finish(std::string& error) {
    const MutexLock lock(mutex_);
    const bool complete = complete_file();
    if (!complete) error = error_;
    return complete;
}

bool StreamRecorder::complete_file() {
    if (!impl_) return error_.empty();
    const std::unique_ptr<Impl> impl = std::move(impl_);
    if (!impl->header_written) return fail("nothing recorded: no keyframe came");
    int result = av_write_trailer(impl->format.get());
    if (result >= 0) result = avio_closep(&impl->format->pb);
    if (result < 0) return fail("cannot complete the recording: " + av_error_text(result));
    return error_.empty();
}

}  // namespace ox::launcher

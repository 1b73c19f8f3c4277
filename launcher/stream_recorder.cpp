#include "launcher/stream_recorder.h"

#include <algorithm>
#include <cstring>

#include "launcher/audio_track.h"
#include "launcher/av_handles.h"

namespace ox::launcher {

namespace {

// The parameter sets that lie in front of a keyframe, for the file's header.
std::vector<uint8_t> parameter_sets(const AVCodecParameters& parameters, AVPacket& packet) {
    AVBSFContext* made = nullptr;
    if (av_bsf_alloc(av_bsf_get_by_name("extract_extradata"), &made) < 0) return {};
    const AvPtr<AVBSFContext> filter(made);
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
    const AvPtr<AVCodecParserContext> parser(av_parser_init(codec));
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

}  // namespace

struct StreamRecorder::Impl {
    AvPtr<AVFormatContext> format;
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

uint64_t StreamRecorder::frames() const {
    const std::lock_guard lock(mutex_);
    return frames_;
}

uint64_t StreamRecorder::audio_frames() const {
    const std::lock_guard lock(mutex_);
    return audio_frames_;
}

std::string StreamRecorder::error() const {
    const std::lock_guard lock(mutex_);
    return error_;
}

bool StreamRecorder::open(const std::string& path, const Tracks& tracks, std::string& error) {
    const std::lock_guard lock(mutex_);
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
    // Sound may come late or never; pictures do not wait for it longer than this.
    impl.format->max_interleave_delta = 1'000'000;
    if (const int result = avformat_write_header(impl.format.get(), nullptr); result < 0)
        return fail("cannot write the recording: " + av_error_text(result));
    impl.header_written = true;
    return true;
}

// Capture time since the first frame. A frame that lost its capture time goes by its arrival, and
// no frame goes before the one it follows.
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

bool StreamRecorder::write(const AssembledFrame& frame) {
    const std::lock_guard lock(mutex_);
    if (!impl_ || !error_.empty()) return false;
    if (!impl_->header_written) {
        if (!frame.keyframe) return true;
        if (!write_header(frame)) return false;
    }
    const AvPtr<AVPacket> packet = packet_of(frame.data, frame.keyframe);
    if (!packet) return fail("cannot record: out of memory");
    if (!write_packet(*packet, 0, presentation_ms(frame))) return false;
    ++frames_;
    return true;
}

void StreamRecorder::write_audio(const AudioFrame& frame) {
    const std::lock_guard lock(mutex_);
    if (!impl_ || !impl_->sound || !error_.empty()) return;
    const auto time = impl_->audio_clock.place(frame);
    if (!time || impl_->start_timestamp == 0 || *time < impl_->start_timestamp) return;
    // No frame goes before the one it follows, also where the clock was set back.
    const int64_t ms = std::max(static_cast<int64_t>(*time - impl_->start_timestamp) / 1000,
                                impl_->previous_audio_ms + 1);
    const AvPtr<AVPacket> packet = packet_of(frame.opus, true);
    if (!packet || !write_packet(*packet, 1, ms)) return;
    impl_->previous_audio_ms = ms;
    ++audio_frames_;
}

bool StreamRecorder::finish() {
    const std::lock_guard lock(mutex_);
    if (!impl_) return error_.empty();
    const std::unique_ptr<Impl> impl = std::move(impl_);
    if (!impl->header_written) return fail("nothing recorded: no keyframe came");
    int result = av_write_trailer(impl->format.get());
    if (result >= 0) result = avio_closep(&impl->format->pb);
    if (result < 0) return fail("cannot complete the recording: " + av_error_text(result));
    return error_.empty();
}

}  // namespace ox::launcher

#include "launcher/stream_recorder.h"

#include <algorithm>
#include <cstring>

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

AvPtr<AVPacket> packet_of(const AssembledFrame& frame) {
    AvPtr<AVPacket> packet(av_packet_alloc());
    if (!packet || frame.data.size() > INT32_MAX / 2 ||
        av_new_packet(packet.get(), static_cast<int>(frame.data.size())) < 0)
        return nullptr;
    std::ranges::copy(frame.data, packet->data);
    if (frame.keyframe) packet->flags |= AV_PKT_FLAG_KEY;
    return packet;
}

}  // namespace

struct StreamRecorder::Impl {
    AvPtr<AVFormatContext> format;
    AVCodecID codec = AV_CODEC_ID_NONE;
    bool header_written = false;
    uint64_t start_timestamp = 0;  ///< capture time of time 0, agent's clock in us
    uint64_t previous_arrival = 0;
    int64_t previous_ms = -1;
};

StreamRecorder::StreamRecorder() = default;
StreamRecorder::~StreamRecorder() = default;

bool StreamRecorder::fail(const std::string& what) {
    if (error_.empty()) error_ = what;
    return false;
}

bool StreamRecorder::open(const std::string& path, Codec codec, std::string& error) {
    auto impl = std::make_unique<Impl>();
    impl->codec = codec_id(codec);
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
    const AvPtr<AVPacket> packet = packet_of(keyframe);
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

bool StreamRecorder::write(const AssembledFrame& frame) {
    if (!impl_ || !error_.empty()) return false;
    if (!impl_->header_written) {
        if (!frame.keyframe) return true;
        if (!write_header(frame)) return false;
    }
    const AvPtr<AVPacket> packet = packet_of(frame);
    if (!packet) return fail("cannot record: out of memory");
    packet->pts = packet->dts = presentation_ms(frame);
    av_packet_rescale_ts(packet.get(), {1, 1000}, impl_->format->streams[0]->time_base);
    if (const int result = av_write_frame(impl_->format.get(), packet.get()); result < 0)
        return fail("cannot write the recording: " + av_error_text(result));
    ++frames_;
    return true;
}

bool StreamRecorder::finish() {
    if (!impl_) return error_.empty();
    const std::unique_ptr<Impl> impl = std::move(impl_);
    if (!impl->header_written) return fail("nothing recorded: no keyframe came");
    int result = av_write_trailer(impl->format.get());
    if (result >= 0) result = avio_closep(&impl->format->pb);
    if (result < 0) return fail("cannot complete the recording: " + av_error_text(result));
    return error_.empty();
}

}  // namespace ox::launcher

#include "video/filterchain.h"

namespace {

using EndsPtr = std::unique_ptr<AVFilterInOut, Freer<avfilter_inout_free>>;

EndsPtr MakeEnd(const char* name, AVFilterContext* filter) {
  EndsPtr end(Allocated(avfilter_inout_alloc()));
  end->name = Allocated(av_strdup(name));
  end->filter_ctx = filter;
  return end;
}

}  // namespace

FilterChain::FilterChain(const char* source, const std::string& arguments, const std::string& filters,
                         const char* sink)
    : m_pGraph(Allocated(avfilter_graph_alloc())) {
  const std::string what = "cannot convert frames by " + filters;
  AVFilterGraph* const graph = m_pGraph.get();
  Check(avfilter_graph_create_filter(&m_pSource, avfilter_get_by_name(source), "in", arguments.c_str(),
                                     nullptr, graph),
        what);
  Check(avfilter_graph_create_filter(&m_pSink, avfilter_get_by_name(sink), "out", nullptr, nullptr, graph),
        what);
  // Seen from the text's filters, the source is an open output and the sink an open input.
  AVFilterInOut* outputs = MakeEnd("in", m_pSource).release();
  AVFilterInOut* inputs = MakeEnd("out", m_pSink).release();
  const int result = avfilter_graph_parse_ptr(graph, filters.c_str(), &inputs, &outputs, nullptr);
  avfilter_inout_free(&inputs);
  avfilter_inout_free(&outputs);
  Check(result, what);
  Check(avfilter_graph_config(graph, nullptr), what);
}

void FilterChain::Push(AVFrame* frame) {
  Check(av_buffersrc_add_frame_flags(m_pSource, frame, AV_BUFFERSRC_FLAG_KEEP_REF), "cannot convert a frame");
}

bool FilterChain::Pull(AVFrame& frame) {
  const int result = av_buffersink_get_frame(m_pSink, &frame);
  if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return false;
  Check(result, "cannot convert a frame");
  return true;
}

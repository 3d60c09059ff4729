// Text recognition (#27), answered by the shared TextRecognizer. Called on a
// request worker; a request that finds every engine busy is queued and
// answered later from another worker. The reply is the failure text (nil
// when recognition ran), the JSON array of lines (nil when none) and the
// request's identifier.
#include "ocr/text_recognizer.h"
#include "service/service_provider.h"

namespace quorvi {

void ServiceProvider::ocrWithImage(Bytes image, int64_t identifier, bool isAccurateLevel, Reply reply) {
  TextRecognizer::shared().recognize(std::move(image), identifier, isAccurateLevel,
                                     [reply, identifier](TextRecognizer::Answer answer) {
                                       reply.sendStringDataAndInteger(std::move(answer.failure),
                                                                      std::move(answer.data), identifier);
                                     });
}

}  // namespace quorvi

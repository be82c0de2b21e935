#include "comm/kruDrestoPerfClient.h"
#include "comm/kruVersion.h"

static_assert(KRU_VERSION_NUMBER >= 10000);

int main() {
  tq::comm::DrestoPerfClient client(u"127.0.0.1", 9);
  return client.isConnected() ? 1 : 0;
}

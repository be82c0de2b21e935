/* Prints the keys of the best ten documents that match a query, best first, over the binary
   protocol. It is C11 and knows nothing of C++:
     search_c HOST PORT COLLECTION QUERY */

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "capi/kru.h"

static uint32_t length_of(const char* text) { return (uint32_t)strlen(text); }

static int report(const kru_error* error) {
  fprintf(stderr, "%s %s %s %" PRIu32 "\n", error->id, error->message, error->host, error->port);
  if (error->retry == KRU_RETRY_SAFE) fprintf(stderr, "it may help to try again\n");
  return 1;
}

/* A hit has its key as bytes; this one expects that they can be shown. */
static int print_hits(kru_cursor* cursor, kru_error* error) {
  kru_hit hit = {.size = sizeof hit};
  int32_t code;
  while ((code = kru_cursor_next(cursor, &hit, error)) == KRU_OK) {
    printf("%g %.*s\n", hit.score, (int)hit.key_length, (const char*)hit.key);
  }
  /* A result that was cut off ends with another code than a whole one. */
  return code == KRU_END ? 0 : report(error);
}

static int search(kru_client* client, const char* collection, const char* query, kru_error* error) {
  const kru_limits quick = {.size = sizeof quick, .deadline = 50, .retries = 0};
  const kru_search_options best = {.size = sizeof best, .most = 10};
  int64_t matching = 0, documents = 0;
  kru_cursor* cursor;
  int result;
  if (kru_estimate(client, collection, length_of(collection), query, length_of(query), &quick,
                   &matching, NULL, &documents, error) == KRU_OK) {
    printf("about %" PRId64 " of %" PRId64 " documents\n", matching, documents);
  }
  if (kru_search(client, collection, length_of(collection), query, length_of(query), &best, NULL,
                 &cursor, error) != KRU_OK) {
    return report(error);
  }
  result = print_hits(cursor, error);
  kru_cursor_close(cursor);
  return result;
}

int main(int argc, char** argv) {
  kru_error error = {.size = sizeof error};
  kru_client* client;
  int result;
  if (argc != 5) {
    fprintf(stderr, "usage: search_c HOST PORT COLLECTION QUERY\n");
    return 2;
  }
  if (kru_client_create(KRU_BINARY, argv[1], length_of(argv[1]),
                        (uint32_t)strtoul(argv[2], NULL, 10), &client, &error) != KRU_OK) {
    return report(&error);
  }
  kru_client_set(client, KRU_DEADLINE, 5000, NULL);
  result = search(client, argv[3], argv[4], &error);
  kru_client_destroy(client);
  return result;
}

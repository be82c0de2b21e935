#pragma once

#include <stdint.h>

/* The library for callers that are not C++: plain functions, opaque handles, errors by value. What
   the functions do is what the clients of comm/ do; this says what is different here.

   Results. A function that can fail returns one of the KRU_ codes below and, when it is given a
   `kru_error`, says there what happened. No exception and no jump ever comes out of a function, out
   of memory included. One thing passes: a thread that is cancelled (pthread_cancel) in a wait
   unwinds through the function, and the client can be destroyed afterwards. In a wait hook the
   cancellation waits until the hook has returned.

   Texts are UTF-8 with a length in bytes and need no zero at their end. A text that is not UTF-8,
   CR, LF or NUL in a collection name, a query or a text of kru_client_set_text, and null with a
   length are KRU_MISUSE; nothing is sent. Keys and contents of documents are any bytes. What is
   handed in is read or copied during the call and not kept.

   Threads. Calls on a client and its cursors must not overlap; different clients are independent.
   A call that meets another one under way on its client, in another thread or because a wait hook
   makes it, is KRU_MISUSE and does nothing. A forked child that uses its copy of a client gets a
   connection of its own, its copies of cursors end as if their connection had broken, and what
   KRU_BATCHING held back before the fork is sent by the parent alone: a host whose child goes on in
   its place calls kru_end_queue before it forks.

   Structures that may grow begin with their `size`, which the caller sets to sizeof of what it was
   compiled with. A size below that of version 1.0 or above 65536, such as one that was never set,
   is KRU_MISUSE, and nothing is written to the structure. Fields that the library does not know yet
   become 0 in what it fills, and have to be 0 in what it reads. Integers have a fixed width; times
   are in MILLISECONDS. */

#ifdef __cplusplus
extern "C" {
#endif

#define KRU_API __attribute__((visibility("default")))

/* What a function returns, and `code` of an error. */
enum {
  KRU_OK = 0,
  KRU_END = 1,            /* nothing is left: all that there was has been handed out */
  KRU_MISUSE = 10,        /* the call is wrong, as it says; nothing was done */
  KRU_OUT_OF_MEMORY = 11, /* over the binary protocol it may also be KRU_INTERNAL */
  KRU_CONNECT = 12,       /* no connection can be made */
  KRU_SEND = 13,          /* a write failed, or a queue lost its connection */
  KRU_RECEIVE = 14,       /* the connection ended before the reply did */
  KRU_TIMEOUT = 15,       /* the time-out or the deadline passed */
  KRU_CANCELLED = 16,     /* the wait hook gave up */
  KRU_REFUSED = 17,       /* the server refused the request; `id` and `message` are the server's,
                             whichever id that is. Where its reason cannot be read they are the
                             library's: "ERR_CLIENT_RESP_PARSING" for a record, and over HTTP
                             "ERR_SERVER_APP" (status 500) or "ERR_SERVER_PROTOCOL"; "KRU_REFUSED"
                             when it did not say why */
  KRU_UNAUTHORIZED = 18,  /* the server does not know the caller: its id says so, or its status */
  KRU_PROTOCOL = 19,      /* what arrived is no reply, exceeds a limit, or leaves open what became
                             of the request */
  KRU_INTERNAL = 20,      /* other failures of the library */
  KRU_TRUNCATED = 21,     /* the reply broke off: what was handed out is right, but not all */
  KRU_CURSOR_LOST = 22,   /* another request took the place of what the cursor reads */
  KRU_UNSUPPORTED = 23    /* the protocol of this client cannot do it */
};

/* Whether to do the same once more (`retry`); the client's own retries are over by then. */
enum {
  KRU_RETRY_USELESS = 0, /* it would fail in the same way, or the caller ended it */
  KRU_RETRY_SAFE = 1,    /* nothing was done, or doing it twice does no harm */
  KRU_RETRY_UNSAFE = 2,  /* it may have been done, and doing it twice does harm */
  KRU_RETRY_QUEUE = 3    /* queue all documents again, after KRU_QUEUE_ON_ONE_CONNECTION anew */
};

/* What the connection is afterwards (`connection`). */
enum {
  KRU_CONNECTION_NONE = 0,    /* there is none; the next request makes one */
  KRU_CONNECTION_KEPT = 1,    /* it goes on, unless the server has said that it ends it */
  KRU_CONNECTION_REPLACED = 2 /* the next request makes another one unless it finds this in order */
};

/* What became of the request (`outcome`), over all attempts together. */
enum {
  KRU_NOT_SENT = 0,       /* the server has not seen all of it */
  KRU_MAY_BE_APPLIED = 1, /* it was sent, and no verdict came back; all that is known of a queued
                             document */
  KRU_REJECTED = 2,       /* the server answered with an error */
  KRU_ANSWERED = 3        /* the server answered */
};

/* An error, by value: it needs no memory and nothing to free. Texts are UTF-8, end with a zero byte
   that their length does not count, and are cut at a character where they do not fit. */
typedef struct kru_error {
  uint32_t size; /* sizeof(kru_error), set by the caller; the only field that is read */
  int32_t code;
  int32_t retry;
  int32_t connection;
  int32_t outcome;
  uint32_t port; /* of the server; 0 when no client was concerned */
  uint32_t id_length;
  uint32_t host_length;
  uint32_t message_length;
  char id[68]; /* such as "ERR_SERVER_COMM_TIMEOUT", or the server's own; for programs */
  char host[256];
  char message[1024]; /* for people; may be empty */
} kru_error;

/* The name of a code, such as "KRU_TIMEOUT"; "" for what is none. Lives as long as the library. */
KRU_API const char* kru_code_name(int32_t code);

/* The version of the library in use: major * 10000 + minor * 100 + patch. */
KRU_API uint32_t kru_version(void);

/* ---- Clients ---- */

typedef struct kru_client kru_client;

enum { KRU_HTTP = 1, KRU_BINARY = 2 };

/* Makes a client of one server. Neither resolves nor connects. On a failure `*client` is null. */
KRU_API int32_t kru_client_create(int32_t protocol, const char* host, uint32_t host_length,
                                  uint32_t port, kru_client** client, kru_error* error);

/* Closes the connection and ends the client; null does nothing. Its cursors stay valid handles:
   they say KRU_CURSOR_LOST and have to be closed as always. Called from the client's wait hook it
   makes the operation give up. Documents that KRU_BATCHING still holds back are dropped: call
   kru_end_queue first. */
KRU_API void kru_client_destroy(kru_client* client);

/* Settings, each with the value it has at first. */
enum {
  KRU_TIME_OUT = 1,           /* for connecting and each wait for reply bytes; 0: none. First 0 */
  KRU_DEADLINE = 2,           /* for one whole call, retries included; 0: none. First 0 */
  KRU_RETRIES = 3,            /* how often a failed communication is repeated. First 1 */
  KRU_RETRY_UNSAFE_KINDS = 4, /* 0: what may have been done and does not bear it is not repeated.
                                First 1 */
  KRU_RETRY_PAUSE = 5,        /* before the first repetition, doubled with each. First 0 */
  KRU_RETRY_PAUSE_MOST = 6,   /* what the pause grows to at most. First 0 */
  KRU_REASSEMBLY = 7, /* binary only: a first portion may be cut anywhere. First 1, unlike in
                         C++; over HTTP the value makes no difference */
  KRU_BATCHING = 8,   /* binary only, else no difference: queued documents are collected into
                         larger writes. One that is held back is KRU_OK and KRU_NOT_SENT; it goes
                         out with kru_end_queue or a request of another kind at the latest. First
                         0 */
  KRU_QUEUE_ON_ONE_CONNECTION = 9, /* 1: a queue that loses its connection fails; set it again to
                                      begin a new queue. First 0 */
  KRU_MAX_REPLY_BYTES = 10         /* what a reply may announce at most. First 2^30 */
};
KRU_API int32_t kru_client_set(kru_client* client, int32_t setting, uint32_t value,
                               kru_error* error);

/* Texts that the client's requests carry. At first there is none. */
enum {
  KRU_CREDENTIALS = 101, /* in every request, for a server with accounts: "Bearer " and a token, or
                            "Basic " and the Base64 of NAME:PASSWORD. Where the server does not
                            accept them, it drops queued documents without a word, and other
                            requests are KRU_UNAUTHORIZED */
  KRU_CLIENT_NAME = 102  /* in queued documents, kru_end_queue and kru_ask_outcomes: the outcomes of
                            documents that were queued under a name are told under it alone. At most
                            128 bytes; of several programs that queue into one collection each needs
                            a name of its own */
};
/* Copies the text for the requests from now on; what KRU_BATCHING holds back stays as it is. Length
   0, with null or without, takes the text away. On KRU_MISUSE the text stays the one before. No
   error of the library shows it. */
KRU_API int32_t kru_client_set_text(kru_client* client, int32_t setting, const char* text,
                                    uint32_t length, kru_error* error);

/* What a wait hook is asked for (`events`, added up) and what it answers. Any other answer counts
   as KRU_WAIT_GIVE_UP. */
enum { KRU_WAIT_READ = 1, KRU_WAIT_WRITE = 2 };
enum { KRU_WAIT_READY = 0, KRU_WAIT_TIMED_OUT = 1, KRU_WAIT_GIVE_UP = 2 };

/* Waits until the descriptor is ready or `time_out` milliseconds are over (-1: no limit), with the
   descriptor -1 until the time is over, and lets its process attend to its own events meanwhile.

   A HOOK RETURNS. It must not leave by longjmp, by a language's exception or by pthread_exit: the
   library's frames would be skipped, and what they hold would stay held. A client that was left so
   refuses every further call (KRU_MISUSE) and gives back neither its memory nor its connection, not
   even when it is destroyed; and pthread_cancel has no effect on the thread any more. A host whose
   errors are jumps catches them inside of the hook, keeps what it caught, and answers
   KRU_WAIT_GIVE_UP; when the call has returned KRU_CANCELLED, it raises its error again:

     static int32_t wait_for(void* host, int32_t fd, int32_t events, int32_t time_out) {
       struct my_state* state = host;
       if (setjmp(state->handler) != 0) return KRU_WAIT_GIVE_UP;    (state->caught is filled)
       return my_poll_that_may_jump(fd, events, time_out);
     }
     ...
     code = kru_search(...);
     if (state.caught) my_raise_again(state.caught);

   A hook must not call the library on its own client (KRU_MISUSE), other clients are free to use;
   it must not read from the descriptor nor close it. */
typedef int32_t (*kru_wait_hook)(void* host, int32_t fd, int32_t events, int32_t time_out);

/* With a hook the client waits in no other way: to connect, write or read, and in pauses.
   `host` is handed to it and must live as long as the hook is set. Null, as at first: the library
   waits. */
KRU_API int32_t kru_client_set_wait_hook(kru_client* client, kru_wait_hook hook, void* host,
                                         kru_error* error);

/* Closes the connection. The next request makes another one. What KRU_BATCHING holds back stays,
   and goes out over that. */
KRU_API int32_t kru_client_disconnect(kru_client* client, kru_error* error);

/* Sets `*number` to a number that changes with every connection; 0 before the first one. */
KRU_API int32_t kru_client_connection_number(kru_client* client, uint64_t* number,
                                             kru_error* error);

/* Copies the result of the client's last call that talked to the server, cursors included: its
   error, or code KRU_OK with the outcome. */
KRU_API int32_t kru_client_last_error(kru_client* client, kru_error* error);

/* ---- Requests. `limits` may be null everywhere: then the client's settings hold. ---- */

/* What one call may take, instead of KRU_DEADLINE and KRU_RETRIES. The deadline that was given to
   kru_search or kru_ask_outcomes also holds, each time anew, for what their cursor fetches later;
   a fetch is never repeated, whatever the retries. */
typedef struct kru_limits {
  uint32_t size;     /* sizeof(kru_limits) */
  uint32_t deadline; /* 0: none */
  uint32_t retries;
} kru_limits;

KRU_API int32_t kru_create_collection(kru_client* client, const char* collection,
                                      uint32_t collection_length, const kru_limits* limits,
                                      kru_error* error);
KRU_API int32_t kru_drop_collection(kru_client* client, const char* collection,
                                    uint32_t collection_length, const kru_limits* limits,
                                    kru_error* error);
/* Makes what was added searchable. The server answers when all of it is indexed. */
KRU_API int32_t kru_update_index(kru_client* client, const char* collection,
                                 uint32_t collection_length, const kru_limits* limits,
                                 kru_error* error);

/* A named text of a document. This layout never grows. */
typedef struct kru_pair {
  const char* name;
  const char* value;
  uint32_t name_length;
  uint32_t value_length;
} kru_pair;

/* Adds a document or replaces the one of its key, which has 1 to 128 bytes. A content has at most
   2^30 - 1 bytes; a longer one is KRU_MISUSE. `pairs` may be null
   when `pair_count` is 0; the protocols need one pair, which is then made from the key. */
KRU_API int32_t kru_add_document(kru_client* client, const char* collection,
                                 uint32_t collection_length, const void* key, uint32_t key_length,
                                 const void* content, uint32_t content_length,
                                 const kru_pair* pairs, uint32_t pair_count,
                                 const kru_limits* limits, kru_error* error);

/* The same without an answer. What became of it is asked for with kru_end_queue and then
   kru_ask_outcomes. */
KRU_API int32_t kru_queue_document(kru_client* client, const char* collection,
                                   uint32_t collection_length, const void* key, uint32_t key_length,
                                   const void* content, uint32_t content_length,
                                   const kru_pair* pairs, uint32_t pair_count,
                                   const kru_limits* limits, kru_error* error);
/* Tells the server that the queue's last document was sent. */
KRU_API int32_t kru_end_queue(kru_client* client, const char* collection,
                              uint32_t collection_length, const kru_limits* limits,
                              kru_error* error);

KRU_API int32_t kru_delete_document(kru_client* client, const char* collection,
                                    uint32_t collection_length, const void* key,
                                    uint32_t key_length, const kru_limits* limits,
                                    kru_error* error);

/* How many documents match: `*matching` estimated, `*most` at most, `*documents` in all. Each may
   be null. Only over the binary protocol: HTTP has no room for it, KRU_UNSUPPORTED. */
KRU_API int32_t kru_estimate(kru_client* client, const char* collection, uint32_t collection_length,
                             const char* query, uint32_t query_length, const kru_limits* limits,
                             int64_t* matching, int64_t* most, int64_t* documents,
                             kru_error* error);

/* The state of the server or, with a collection, of that: `*status` becomes 0 when it is ready, 1
   when changes wait for kru_update_index, 2 when it is not available. What the server says to the
   last stands in `error`, although the code is KRU_OK. */
KRU_API int32_t kru_status(kru_client* client, const char* collection, uint32_t collection_length,
                           const kru_limits* limits, uint32_t* status, kru_error* error);

/* ---- Cursors ---- */

/* What is left of a reply. It has its own memory, and the client has the connection that the rest
   comes over. So one cursor at a time can fetch: once another request was made over its client, a
   cursor hands out the hits that have arrived and then says KRU_CURSOR_LOST, unless all had
   arrived. Give each cursor of nested ones a client of its own.

   A cursor whose fetch failed says the same again, except for KRU_TIMEOUT: then it can go on. After
   kru_client_disconnect a cursor that has to fetch says KRU_CONNECT. */
typedef struct kru_cursor kru_cursor;

typedef struct kru_search_options {
  uint32_t size;          /* sizeof(kru_search_options) */
  int32_t without_scores; /* 1: the server need not send any */
  uint64_t start;         /* hits to leave out in front */
  uint64_t most;          /* hits at most; 0: all */
} kru_search_options;

typedef struct kru_hit {
  uint32_t size; /* sizeof(kru_hit) */
  uint32_t key_length;
  const void* key; /* null when the document's name in the reply is no key */
  double score;    /* 0 when none was sent */
} kru_hit;

/* Asks, and hands out the hits in the order of the server through `*cursor`, which is null on a
   failure. `options` may be null. */
KRU_API int32_t kru_search(kru_client* client, const char* collection, uint32_t collection_length,
                           const char* query, uint32_t query_length,
                           const kru_search_options* options, const kru_limits* limits,
                           kru_cursor** cursor, kru_error* error);

/* The next hit: KRU_OK, and KRU_END behind the last. KRU_TRUNCATED says that hits are missing.
   Each fetch is bounded by the deadline of the limits that the cursor was made with; without
   limits, by KRU_DEADLINE. The key lives until the next call on this cursor. */
KRU_API int32_t kru_cursor_next(kru_cursor* cursor, kru_hit* hit, kru_error* error);

/* The name of the document of the last hit as a text: "base64:" and the key's Base64, or what the
   server calls it. Lives until the next call on this cursor. */
KRU_API int32_t kru_cursor_document(kru_cursor* cursor, const char** name, uint32_t* name_length,
                                    kru_error* error);

typedef struct kru_outcome {
  uint32_t size; /* sizeof(kru_outcome) */
  uint32_t key_length;
  const void* key;  /* as in a hit */
  const char* name; /* the document's name as a text */
  uint32_t name_length;
  uint32_t id_length;
  const char* id; /* of the message, for programs; null: the document is stored */
  const char* message;
  uint32_t message_length;
  int32_t level; /* 1 severe, 2 error, 4 warning, 8 information */
} kru_outcome;

/* Asks what became of the documents that were queued into the collection under the client's
   KRU_CLIENT_NAME or, without one, by whomever without one: each outcome is told once. Match them
   by key. What another client has queued under the same name may still be on its way to the
   server, until that client has had an answer. */
KRU_API int32_t kru_ask_outcomes(kru_client* client, const char* collection,
                                 uint32_t collection_length, const kru_limits* limits,
                                 kru_cursor** cursor, kru_error* error);

/* The next outcome, as kru_cursor_next. Its texts live until the next call on this cursor. */
KRU_API int32_t kru_cursor_next_outcome(kru_cursor* cursor, kru_outcome* outcome, kru_error* error);

/* Null does nothing. What the cursor did not read costs the client its connection, not its order.
 */
KRU_API void kru_cursor_close(kru_cursor* cursor);

#ifdef __cplusplus
}
#endif

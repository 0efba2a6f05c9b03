#pragma once

// The CyaSSL names that the cloud socket uses, for wolfSSL releases that no longer ship them. Used
// only where the library's own cyassl/ssl.h is missing.

#include <wolfssl/options.h>
#include <wolfssl/ssl.h>

#define CYASSL WOLFSSL
#define CYASSL_CTX WOLFSSL_CTX
#define CYASSL_METHOD WOLFSSL_METHOD

#define CyaSSL_library_init wolfSSL_library_init
#define CyaSSL_load_error_strings wolfSSL_load_error_strings
#define CyaSSLv23_client_method wolfSSLv23_client_method
#define CyaSSL_CTX_new wolfSSL_CTX_new
#define CyaSSL_CTX_free wolfSSL_CTX_free
#define CyaSSL_CTX_load_verify_locations wolfSSL_CTX_load_verify_locations
#define CyaSSL_CTX_set_verify wolfSSL_CTX_set_verify
#define CyaSSL_new wolfSSL_new
#define CyaSSL_free wolfSSL_free
#define CyaSSL_set_fd wolfSSL_set_fd
#define CyaSSL_SetIOWriteFlags wolfSSL_SetIOWriteFlags
#define CyaSSL_SetIORecv wolfSSL_CTX_SetIORecv
#define CyaSSL_SetIOReadCtx wolfSSL_SetIOReadCtx
#define CyaSSL_connect wolfSSL_connect
#define CyaSSL_get_error wolfSSL_get_error
#define CyaSSL_write wolfSSL_write
#define CyaSSL_read wolfSSL_read
#define CyaSSL_peek wolfSSL_peek
#define CyaSSL_pending wolfSSL_pending
#define CyaSSL_shutdown wolfSSL_shutdown

/* qlapi.h: the client library's C API. (Being filled in: see qlapi/src.) */
#ifndef QLAPI_H_
#define QLAPI_H_

#ifdef __cplusplus
extern "C" {
#endif

int QInitialize(int nFlags);
int QFinalize(void);

/* Buffers handed between the library and its caller. */
void *QAlloc(unsigned int dwSize);
void QFree(void *pvData);

#ifdef __cplusplus
}
#endif

#endif /* QLAPI_H_ */

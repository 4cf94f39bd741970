/* Result codes of the daemon, shared by its modules, its answers to clients ("inner_error_code")
 * and the client library. 0 is success, every other code is negative. */
#ifndef CLOUD_SVR_CODES_H
#define CLOUD_SVR_CODES_H

enum cloud_svr_code {
    CLOUD_SVR_OK = 0,
    CLOUD_SVR_E_GENERAL = -1,          /* no helloCloud request available, unknown mode */
    CLOUD_SVR_E_NO_CONNECTION = -1000, /* no connection to the cloud, or the connection failed */
    CLOUD_SVR_E_LISTEN = -1100,        /* local listening socket could not be set up */
    CLOUD_SVR_E_LOCAL_SEND = -1101,    /* local connect or send failed */
    CLOUD_SVR_E_LOCAL_CLOSED = -1102,  /* local peer closed the connection */
    CLOUD_SVR_E_NOT_FOUND = -2000,     /* message id not among the awaited answers */
    CLOUD_SVR_E_PENDING = -2001,       /* answer still pending */
    CLOUD_SVR_E_NOTHING = -3000,       /* nothing received within the receive wait */
    CLOUD_SVR_E_REGISTRATION = -3001,  /* registration refused */
    CLOUD_SVR_E_REJECTED = -4000,      /* the cloud rejected the device */
    CLOUD_SVR_E_STOPPED = -4001,       /* the cloud ordered the device to stop connecting */
    CLOUD_SVR_E_RESOURCE = -10000,     /* allocation, thread, socket creation, JSON printing */
    CLOUD_SVR_E_FORMAT = -10100,       /* item missing, bad magic, or text that is not JSON */
    CLOUD_SVR_E_INCOMPLETE = -10101,   /* a frame could not be read in full */
    CLOUD_SVR_E_TOO_LONG = -10102,     /* JSON text too long for a cloud frame */
    CLOUD_SVR_E_TIMEOUT = -20002,      /* time-out */
    CLOUD_SVR_E_MESSAGE_ID = -20100,   /* message id missing or not matching */
    CLOUD_SVR_E_METHOD = -20103,       /* wrong or missing "method" */
    CLOUD_SVR_E_MEMBER = -20104,       /* a required member missing in a message */
    CLOUD_SVR_E_RANGE = -20106,        /* value out of range */
    CLOUD_SVR_E_ARGUMENT = -20107      /* NULL or empty argument */
};

#endif

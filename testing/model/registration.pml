/*
 * The three threads of a registration: the daemon's dispatch thread, the worker, and the cloud access object's
 * callback thread, with the two pipes and the busy flag between them. tests/model/check runs spin on it.
 *
 * The host is one that keeps its contract, unless a HOST_... macro breaks it; the module is the one in libs/,
 * unless a BROKEN_... macro breaks it. With ONLY=CHECK one check alone is made, so that the check script can
 * ask for each consequence of a broken contract by itself. SMALL leaves out what a counterexample does not need:
 * it is for searches that are to find one.
 *
 * Every member of the handler that more than one thread uses belongs to a field, and every field has an owner.
 * A thread may touch only what it owns. Fields change hands with a wake-up byte (writer -> reader), with a
 * request (worker -> callback), and with the busy flag (worker that clears it -> dispatch thread that finds it
 * clear). Threads do not hand over by looking at each other's fields, nor by select() telling that a byte is
 * there. So a touch without ownership is a touch that another thread may make at the same moment.
 *
 * The dispatch thread goes on for ever, with any command at any moment, and may unload and load the module
 * again; tries per step are 0, 1, 2 or 4 (by default 4). So what is proved holds for histories of any length. The clock, the
 * texts and the descriptors' numbers are left out; a pause between tries is a step that takes any time.
 */

/* The fields, first because they index `owner`. */
mtype = { STATE, TRIES, LOGIN_RESULT, REGISTER_RESULT, INPUT, ERROR, REQUEST, CLOUD };
#define FIELDS 8

/* STATE            state
 * TRIES            tries_left of both steps
 * LOGIN_RESULT     succeeded and value of login_progress
 * REGISTER_RESULT  succeeded and value of register_progress
 * INPUT            token, mac, first_method and the login step in the state table
 * ERROR            error_response
 * REQUEST          request_id and reply_requested
 * CLOUD            user_token and device_id of the cloud access object */

/* The owners. A field behind the flag belongs to the dispatch thread that finds the flag clear. */
mtype = { BEHIND_FLAG, DISPATCH, DISPATCH_2, WORKER, CALLBACK, CALLBACK_2, IN_WAKE_UP, IN_REQUEST };

/* The states and events of transitions.def. */
mtype = { LOGIN, REGISTER_DEVICE, FINISH, FAIL };
mtype = { SUCCEEDED, SENT, OUT_OF_TRIES, NO_STEP, PUBLISHED, NOT_PUBLISHED, REPORTED, RESET,
          RETRY_LOGIN, RETRY_REGISTER, RETRY_FINISH, RETRY_REFUSED };

/* The checks. */
mtype = { OWNER,        /* no field is touched by two threads at once */
          LIFETIME,     /* the handler is used only while it exists */
          DESCRIPTOR,   /* bytes are written only to open pipes */
          BLOCK,        /* a request's block is deleted once */
          PIPE_FULL,    /* no wake-up is dropped */
          ONE_BYTE,     /* never more than one wake-up waits */
          OUTSTANDING,  /* one request is outstanding at a time */
          OVERLAP,      /* a command is accepted when no other is under way */
          STRAY,        /* the worker acts for an accepted command only */
          UNASKED,      /* ... and so publishes for one only */
          END,          /* an accepted command ends once */
          REPLY,        /* one reply to the accepted command if it is wanted, else none */
          RESULT,       /* a registration ends with its own results */
          BUSY,         /* a command is refused as busy only when one is under way */
          STOP,         /* after the stop byte at most one more run begins */
          TABLE };      /* the state machine moves by its table */

#ifdef ONLY
#define checked(check) (ONLY == check)
#else
#define checked(check) true
#endif

#ifndef PIPE_CAPACITY
#define PIPE_CAPACITY 2
#endif

/* ---- The module */

chan run_pipe = [PIPE_CAPACITY] of { bit };
chan stop_pipe = [1] of { bit };
bool pipes_open;
bool handler_exists;
bool worker_started;
bool worker_ended;

bool registration_in_progress;
mtype state = LOGIN;
byte tries[2];
bool succeeded[2];
bool login_step_installed;
bool request_id;
bool reply_requested;
byte budget; /* g_retry_num + 1 */

mtype owner[FIELDS + 1];

/* ---- The host */

chan requests = [2] of { mtype, bit }; /* step, registration */
byte callbacks_running;
bool closing; /* uninit() has been called */
/* A callback is called again, and when. */
#if defined(HOST_CALLS_TWICE) || defined(HOST_CALLS_OFTEN)
#define again_now true
#elif defined(HOST_CALLS_AFTER_END)
#define again_now (handler_exists && !accepted)
#elif defined(HOST_CALLS_AFTER_NEXT_START)
#define again_now (accepted && again_registration != registration)
#endif
#ifdef HOST_CALLS_OFTEN
#define AGAIN_TIMES 3
#else
#define AGAIN_TIMES 1
#endif
#ifdef again_now
byte again_left;
mtype again_step = LOGIN;
bit again_registration;
#endif
#ifdef HOST_OPERATIONS_WAIT
bool dispatch_waits;
#endif
#if defined(HOST_TWO_COMMANDS) || defined(HOST_COMMAND_DURING_UNINIT)
#define second_dispatch
bool second_command;
#endif

/* ---- What the checks remember */

bool accepted;       /* a command has been accepted and has not ended */
bool accepted_id;
bool wanted;         /* ... and its end is to be replied */
bool carried;        /* the wish of a failed registration, for its retry */
byte replies;
bit registration;    /* changes with every accepted start */
bit result_of[2];    /* the registration that a step's result belongs to */
byte outstanding;
byte runs_after_stop;

byte i; /* of loops within one step; else 0 */

c_decl {
    static void note_reached(const char* what) {
        static const char* seen[64];
        int n = 0;
        while (seen[n] != 0) {
            if (strcmp(seen[n++], what) == 0) {
                return;
            }
        }
        seen[n] = what;
        printf("reached %s\n", what);
    }
};

/* Numbers in angle brackets are names, which the check script puts in. */
inline require(check, condition) {
    if
    :: (condition) || !checked(check)
    :: else -> printf("violated <%d>\n", check); assert(false)
    fi
}

inline hand_over(from, to) {
    for (i : 1 .. FIELDS) {
        if
        :: owner[i] == from -> owner[i] = to
        :: else
        fi
    };
    i = 0
}

inline touch(me, field) {
    d_step {
        require(LIFETIME, handler_exists);
        if
        :: owner[field] != me && checked(OWNER) -> printf("<%d> touches <%d> of <%d>\n", me, field, owner[field])
        :: else
        fi;
        require(OWNER, owner[field] == me)
    }
}

#define index_of(step) (step == REGISTER_DEVICE)
#define result_field(step) (step == LOGIN -> LOGIN_RESULT : REGISTER_RESULT)

/* Moves by the table. */
inline change_state(event) {
    if
#define TRANSITION(from, event_, to) \
    :: state == from && event == event_ -> state = to; c_code { note_reached(#from " " #event_ " " #to); }
#include "transitions.def"
#undef TRANSITION
    :: else -> require(TABLE, false)
    fi;
    printf("<%d>, now <%d>\n", event, state)
}

inline take(me, event) {
    touch(me, STATE);
    d_step { change_state(event) }
}

inline wake_up(me) {
    d_step {
        require(LIFETIME, handler_exists);
        require(DESCRIPTOR, pipes_open);
        require(PIPE_FULL, len(run_pipe) < PIPE_CAPACITY);
        require(ONE_BYTE, len(run_pipe) == 0);
        printf("<%d> wakes the worker\n", me);
        if
        :: me != WORKER -> hand_over(me, IN_WAKE_UP)
        :: else /* what stays on one thread needs no handing over */
        fi;
        if
        :: pipes_open && len(run_pipe) < PIPE_CAPACITY -> run_pipe!1
        :: else
        fi
    }
}

/* The command that was under way ends: the busy flag is cleared. */
inline end_run(failed) {
    d_step {
        require(END, accepted);
        require(REPLY, replies == wanted);
        printf("the command ends, failed: %d\n", failed);
        carried = failed && wanted;
        accepted = false;
        replies = 0;
        accepted_id = 0;
        wanted = false;
        registration_in_progress = false;
        hand_over(WORKER, BEHIND_FLAG)
    }
}

inline reset_fields(me, event) {
    take(me, event);
    touch(me, TRIES);
    d_step { tries[0] = budget; tries[1] = budget };
    touch(me, LOGIN_RESULT);
    d_step { succeeded[0] = false; result_of[0] = 0 };
    touch(me, REGISTER_RESULT);
    d_step { succeeded[1] = false; result_of[1] = 0 };
    touch(me, INPUT);
    touch(me, ERROR);
    touch(me, REQUEST);
#ifndef BROKEN_RESET_KEEPS_REPLY
    reply_requested = false
#endif
}

/* A response callback; `again` for a response that the module is not owed. */
inline callback(me, step, of_registration, again) {
    if
    :: step == LOGIN -> touch(me, INPUT) /* first_method */
    :: else
    fi;
    d_step { require(BLOCK, !again) };
    if
    :: good = true; touch(me, CLOUD)
    :: good = false
    fi;
    d_step {
        printf("<%d>: response to <%d>, good: %d, again: %d\n", me, step, good, again);
        if
        :: !again -> outstanding--
        :: else
        fi
    };
#ifdef BROKEN_WAKE_UP_FIRST
    wake_up(me);
#endif
    touch(me, result_field(step));
    d_step {
        succeeded[index_of(step)] = good;
        result_of[index_of(step)] = (good -> of_registration : 0)
    };
    touch(me, ERROR);
#if !defined(BROKEN_WAKE_UP_FIRST) && !defined(BROKEN_NO_WAKE_UP)
    wake_up(me);
#endif
    good = false
}

/* ---- The worker */

inline send_reply() {
    d_step {
        require(STRAY, accepted);
        require(REPLY, wanted && replies == 0 && request_id == accepted_id);
        printf("WORKER replies\n");
        replies = (replies < 2 -> replies + 1 : 2)
    }
}

inline host_operation() {
#ifdef HOST_OPERATIONS_WAIT
    !dispatch_waits
#else
    skip
#endif
}

active proctype Worker() {
    mtype step = LOGIN;
    bool sent, good, stop_readable;

end_absent:
    worker_started && !worker_ended;

loop:
    step = LOGIN;
    sent = false;
    /* select() */
    atomic {
        len(stop_pipe) > 0 || len(run_pipe) > 0;
#ifdef BROKEN_STOP_LAST
        stop_readable = len(stop_pipe) > 0 && len(run_pipe) == 0
#else
        stop_readable = len(stop_pipe) > 0
#endif
    };
    if
    :: stop_readable -> stop_readable = false; worker_ended = true; goto end_absent
    :: else
    fi;
    d_step {
#ifndef BROKEN_READ_LAST
        run_pipe?_;
        hand_over(IN_WAKE_UP, WORKER);
#endif
        printf("WORKER runs\n");
        require(STRAY, accepted);
        if
        :: len(stop_pipe) > 0 -> runs_after_stop++
        :: else
        fi;
        require(STOP, runs_after_stop <= 1)
    };

machine:
    touch(WORKER, STATE);
    if
    :: state == FINISH -> goto finish
    :: state == FAIL -> goto fail
    :: else -> step = state
    fi;
    touch(WORKER, INPUT); /* the state table */
    if
    :: step == LOGIN && !login_step_installed ->
        touch(WORKER, ERROR);
        take(WORKER, NO_STEP);
        goto machine
    :: else
    fi;
    touch(WORKER, result_field(step));
    if
    :: succeeded[index_of(step)] -> take(WORKER, SUCCEEDED); goto machine
    :: else
    fi;

    do
    :: touch(WORKER, TRIES);
        if
        :: tries[index_of(step)] == 0 -> break
        :: else
        fi;
#ifndef BROKEN_ENDLESS_TRIES
        tries[index_of(step)]--;
#endif
        /* The pause takes any time, as every step does. */
        touch(WORKER, REQUEST);
        touch(WORKER, INPUT);
        touch(WORKER, CLOUD); /* the connection fields */
        host_operation();
        if
        :: /* refused, or not even built */
#ifdef HOST_ANSWERS_REFUSED
            callback(WORKER, step, registration, true);
#endif
            touch(WORKER, ERROR);
            sent = false
        :: /* answered before send_request() returns */
            touch(WORKER, STATE);
            d_step {
                require(STRAY, accepted);
                require(OUTSTANDING, outstanding == 0);
                outstanding++;
                change_state(SENT)
            };
            c_code { note_reached("answer inside"); };
            callback(WORKER, step, registration, false);
            sent = true
        :: /* answered later */
            len(requests) < 2 ->
            touch(WORKER, STATE);
            d_step {
                require(STRAY, accepted);
                require(OUTSTANDING, outstanding == 0);
                outstanding++;
                change_state(SENT);
                /* What the callback uses; the rest stays with the worker. */
                owner[LOGIN_RESULT] = (step == LOGIN && owner[LOGIN_RESULT] == WORKER ->
                                       IN_REQUEST : owner[LOGIN_RESULT]);
                owner[REGISTER_RESULT] = (step == REGISTER_DEVICE && owner[REGISTER_RESULT] == WORKER ->
                                          IN_REQUEST : owner[REGISTER_RESULT]);
                owner[INPUT] = (owner[INPUT] == WORKER -> IN_REQUEST : owner[INPUT]);
                owner[ERROR] = (owner[ERROR] == WORKER -> IN_REQUEST : owner[ERROR]);
                owner[CLOUD] = (owner[CLOUD] == WORKER -> IN_REQUEST : owner[CLOUD]);
                requests!step, registration
            };
            sent = true;
#ifdef BROKEN_TOUCH_AFTER_SEND
            touch(WORKER, ERROR)
#endif
        fi;
        if
        :: sent -> goto done
        :: else
        fi
    od;
    take(WORKER, OUT_OF_TRIES);
    goto machine;

finish:
    touch(WORKER, LOGIN_RESULT);
    touch(WORKER, REGISTER_RESULT);
    host_operation();
    if
    :: /* published */
        d_step {
            require(UNASKED, accepted);
            require(RESULT, result_of[0] == registration && result_of[1] == registration);
            printf("WORKER publishes\n")
        };
        touch(WORKER, REQUEST);
        if
        :: reply_requested -> host_operation(); send_reply()
        :: else
        fi;
#ifdef BROKEN_FLAG_FIRST
        end_run(false);
        reset_fields(WORKER, PUBLISHED);
#else
        reset_fields(WORKER, PUBLISHED);
        end_run(false);
#endif
        goto done
    :: /* not published */
        touch(WORKER, ERROR);
        take(WORKER, NOT_PUBLISHED);
        goto machine
    fi;

fail:
    take(WORKER, REPORTED);
#ifdef BROKEN_FLAG_BEFORE_REPLY
    end_run(true);
#endif
    touch(WORKER, REQUEST);
    if
    :: reply_requested -> touch(WORKER, ERROR); host_operation(); send_reply()
    :: else
    fi;
#ifndef BROKEN_FLAG_BEFORE_REPLY
    end_run(true);
#endif

done:
#ifdef BROKEN_READ_LAST
    skip;
    d_step { run_pipe?_; hand_over(IN_WAKE_UP, WORKER) };
#endif
    goto loop
}

/* ---- The cloud access object's callback thread */

#ifdef HOST_CALLS_BACK_DURING_UNINIT
#define may_call_back true
#elif defined(HOST_NEVER_ANSWERS)
#define may_call_back false
#else
#define may_call_back !closing
#endif

active proctype Cloud() {
    mtype step = LOGIN;
    bool good;
    bit of_registration;

end_idle:
    do
    :: atomic {
            may_call_back && len(requests) > 0 ->
            requests?step, of_registration;
            callbacks_running++;
            hand_over(IN_REQUEST, CALLBACK);
#ifdef again_now
            if
            :: again_left == 0 ->
                again_left = AGAIN_TIMES;
                again_step = step;
                again_registration = of_registration
            :: true
            fi
#endif
        };
        callback(CALLBACK, step, of_registration, false);
        /* The callback returns: what it does after the wake-up touches nothing of the handler. */
        d_step { callbacks_running--; step = LOGIN; of_registration = 0 }
    od
}

#ifdef again_now
/* Calls a callback that has been called already, on another thread. */
active proctype CloudAgain() {
    mtype step = LOGIN;
    bool good;
    bit of_registration;

end_idle:
    do
    :: atomic {
            again_left > 0 && again_now ->
            step = again_step;
            of_registration = again_registration;
            again_left--;
            callbacks_running++
        };
        callback(CALLBACK_2, step, of_registration, true);
        callbacks_running--
    od
}
#endif

/* ---- The daemon's dispatch thread */

inline accept(is_retry) {
    d_step {
        require(OVERLAP, !accepted);
        printf("accepted, retry: %d, reply wanted: %d\n", is_retry, wants_reply);
        if
        :: is_retry && carried && !wants_reply -> c_code { note_reached("carried reply"); }
        :: else
        fi;
        accepted = true;
        accepted_id = id;
        wanted = wants_reply || (is_retry && carried);
        carried = false;
        replies = 0;
        if
        :: !is_retry -> registration = 1 - registration
        :: else
        fi;
#ifndef BROKEN_NO_FLAG
        registration_in_progress = true
#endif
    }
}

inline record_request(me) {
    touch(me, REQUEST);
    d_step {
        reply_requested = reply_requested || wants_reply;
        request_id = id
    }
}

/* One command, of any kind, with or without a wish for a reply. */
inline choose_command() {
    if
    :: retry = true
    :: retry = false
    fi;
    if
    :: wants_reply = true
    :: wants_reply = false
    fi;
    if
    :: id = 0
    :: id = 1
    fi
}

inline handle(me) {
#ifdef BROKEN_RECORD_BEFORE_TEST
    choose_command();
    d_step {
        reply_requested = reply_requested || wants_reply;
        request_id = id
    };
#endif
    d_step {
        require(LIFETIME, handler_exists);
        busy = registration_in_progress;
        if
        :: busy -> require(BUSY, accepted); c_code { note_reached("busy"); }
        :: else -> hand_over(BEHIND_FLAG, me)
        fi
    };
#ifndef BROKEN_RECORD_BEFORE_TEST
    /* What a command that is refused as busy asks for makes no difference. */
    if
    :: busy
    :: else -> choose_command()
    fi;
#endif
    if
    :: busy /* refused with a reply of its own, from the command's record */
    :: !busy && retry ->
        record_request(me);
        touch(me, STATE);
        if
        :: state != FAIL -> take(me, RETRY_REFUSED)
        :: else ->
            touch(me, LOGIN_RESULT);
            touch(me, REGISTER_RESULT);
            if
            :: !succeeded[0] -> touch(me, TRIES); tries[0] = budget; take(me, RETRY_LOGIN)
            :: succeeded[0] && !succeeded[1] -> touch(me, TRIES); tries[1] = budget; take(me, RETRY_REGISTER)
            :: else -> take(me, RETRY_FINISH)
            fi;
            touch(me, ERROR);
            accept(true);
            wake_up(me)
        fi
    :: !busy && !retry ->
        if
        :: skip /* invalid input */
        :: reset_fields(me, RESET);
#ifndef BROKEN_RESET_LEAVES_FLAG
            registration_in_progress = false;
#endif
            record_request(me);
            touch(me, INPUT);
            login_step_installed = true;
            touch(me, CLOUD);
#ifdef BROKEN_START_WAKES_FIRST
            wake_up(me);
            accept(false)
#else
            accept(false);
            wake_up(me)
#endif
        fi
    fi;
    /* A command follows another one: between them everything is behind the flag. */
    d_step {
        hand_over(me, BEHIND_FLAG);
        retry = false;
        wants_reply = false;
        id = 0;
        busy = false
    }
}

active proctype Dispatch() {
    bool retry, wants_reply, id, busy;

load:
    /* init() */
    atomic {
#ifdef SMALL
        budget = 1;
#else
        if
        :: budget = 0
        :: budget = 1
        :: budget = 2
        :: budget = 4
        fi;
#endif
        for (i : 1 .. FIELDS) {
            owner[i] = DISPATCH
        };
        i = 0;
        handler_exists = true;
        pipes_open = true;
        worker_ended = false;
        worker_started = true
    };
    reset_fields(DISPATCH, RESET);
    d_step { registration_in_progress = false; hand_over(DISPATCH, BEHIND_FLAG) };

    do
    :: handle(DISPATCH)
    :: break
    od;

    /* The host calls no callback from here on, and none is running. */
    atomic {
#ifndef HOST_CALLS_BACK_DURING_UNINIT
        callbacks_running == 0;
#endif
#ifdef HOST_TWO_COMMANDS
        !second_command;
#endif
        printf("DISPATCH calls uninit\n");
        closing = true;
#ifdef HOST_OPERATIONS_WAIT
        dispatch_waits = true;
#endif
        stop_pipe!1
    };
#ifndef BROKEN_NO_JOIN
    worker_ended;
#endif
    if
    :: accepted -> c_code { note_reached("shut-down in a run"); }
    :: else
    fi;
    pipes_open = false;
    d_step {
        printf("DISPATCH has joined the worker\n");
        handler_exists = false;
        worker_started = false;
        stop_pipe?_;
        do
        :: len(run_pipe) > 0 -> run_pipe?_
        :: else -> break
        od;
        do
        :: len(requests) > 0 -> requests?_, _
        :: else -> break
        od;
        state = LOGIN;
        login_step_installed = false;
        request_id = 0;
        reply_requested = false;
        accepted = false;
        accepted_id = 0;
        wanted = false;
        carried = false;
        replies = 0;
        outstanding = 0;
        runs_after_stop = 0;
#ifdef HOST_OPERATIONS_WAIT
        dispatch_waits = false;
#endif
    };
    if
#ifndef SMALL
    :: closing = false; c_code { note_reached("loaded again"); }; goto load
#endif
    :: skip
    fi
}

#ifdef second_dispatch
/* Delivers one command on another thread. */
active proctype DispatchToo() {
    bool retry, wants_reply, id, busy;

end_absent:
    atomic { handler_exists && owner[STATE] == BEHIND_FLAG -> second_command = true };
    handle(DISPATCH_2);
    second_command = false
}
#endif

/* ---- What happens in the end: for every thread that can go on does so, and every host operation returns */

#define bytes_wait (len(run_pipe) > 0)

ltl command_ends { [] (accepted -> <> (!accepted || closing)) }
ltl wake_up_is_read { [] (bytes_wait -> <> (!bytes_wait || closing)) }
ltl shut_down_ends { [] (closing -> <> !handler_exists) }

-- The event server's state: dialogs, watchers, event sources and watcher information.

-- Searches for a part of a text need trigrams. The extension belongs to whoever owns the database: the schema's owner
-- may not make one.
CREATE EXTENSION IF NOT EXISTS pg_trgm WITH SCHEMA public;

SET LOCAL ROLE oryx_owner;

-- Servers store, refresh and remove these rows one by one and in any order, so no table refers to another. Their keys
-- make a statement show that is sent again after a lost connection. Each refresh writes columns that no index has, and
-- finds room for it in the row's own page.

-- subscription_states ----------------------------------------------------------------------------------------------
-- No name of a column is one of event_watchers': the two are joined by statements that do not name their tables.

CREATE TABLE subscription_states (
    subscriptionid   text PRIMARY KEY,   -- holds incoming# for a dialog received, outgoing# for one sent
    fromhdr          text,
    tohdr            text,
    callid           text,
    subcseq          integer,
    eventhdr         text,
    remotecontacthdr text,
    routeset         text,
    notcseq          integer,
    requesturi       text,
    packageid        text
) WITH (fillfactor = 90);
-- The servers search dialogs of one direction, in these very words: each has an index of what it is searched by, and
-- an index leaves out the dialogs of the other direction.
CREATE INDEX subscription_states_incoming ON subscription_states
    USING gin (packageid gin_trgm_ops, fromhdr gin_trgm_ops, requesturi gin_trgm_ops)
    WHERE subscriptionid LIKE '%%incoming#%%';
CREATE INDEX subscription_states_outgoing ON subscription_states
    USING gin (packageid gin_trgm_ops, tohdr gin_trgm_ops)
    WHERE subscriptionid LIKE '%%outgoing#%%';

-- event_watchers ---------------------------------------------------------------------------------------------------

CREATE TABLE event_watchers (
    presentitykey   text,
    watcheropaque   text,                -- the subscriptionid of the watcher's dialog
    doctype         integer,
    docversion      bigint,
    watchertype     integer,
    watcherstate    integer,
    expirytime      bigint,              -- seconds since the epoch, as in the tables below
    watcheridentity text,
    event           text,
    presentity      text,
    PRIMARY KEY (presentitykey, watcheropaque)
) WITH (fillfactor = 90);
CREATE INDEX event_watchers_presentitykey ON event_watchers USING gin (presentitykey gin_trgm_ops);

-- event_sources ----------------------------------------------------------------------------------------------------

CREATE TABLE event_sources (
    presentitykey text,
    sourceopaque  text,
    contact       text,
    expirytime    bigint,
    event         text,
    presentity    text,
    PRIMARY KEY (sourceopaque, presentitykey)   -- refreshed and removed by sourceopaque alone
) WITH (fillfactor = 90);
CREATE INDEX event_sources_presentitykey ON event_sources (presentitykey);
CREATE INDEX event_sources_event ON event_sources (event);
CREATE INDEX event_sources_presentity ON event_sources USING gin (presentity gin_trgm_ops, event gin_trgm_ops);

-- watcherinfo ------------------------------------------------------------------------------------------------------

CREATE TABLE watcherinfo (
    winfokey           text,
    subscriberkey      text PRIMARY KEY,
    presurlscheme      text,
    startingdocversion integer,
    expirytime         bigint
) WITH (fillfactor = 90);
CREATE INDEX watcherinfo_winfokey ON watcherinfo (winfokey);

-- Rights -----------------------------------------------------------------------------------------------------------

GRANT SELECT, INSERT, UPDATE, DELETE ON subscription_states, event_watchers, event_sources, watcherinfo TO oryx_server;
GRANT SELECT ON subscription_states, event_watchers, event_sources, watcherinfo TO oryx_reader;

RESET ROLE;

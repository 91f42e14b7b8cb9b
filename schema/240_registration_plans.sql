-- Registrations by index, whatever the table was like when their plans were made. A session plans the statements within
-- a function once. One that begins while contact is empty, and a vacuum has seen it so, would read the whole table for
-- each request until the next ANALYZE, a minute later or more: a registrar that starts anew with 10,000 telephones took
-- ten times as long for each. The setting costs a request one sixtieth of its instructions.

SET LOCAL ROLE oryx_owner;

ALTER FUNCTION register_bindings(integer, text, text, text, bigint, text, bigint, boolean, text[])
    SET enable_seqscan = off;

RESET ROLE;

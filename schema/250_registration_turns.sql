-- More turns. A transaction of several registrations keeps the turns that it has taken until its end. Among 1024 two
-- such transactions of 16 new bindings each share a turn every fourth time, and then one waits for the other; where they
-- share two, each may wait for the other.

SET LOCAL ROLE oryx_owner;

LOCK TABLE registration_turn IN ACCESS EXCLUSIVE MODE;  -- whoever has taken a turn keeps it
INSERT INTO registration_turn SELECT generate_series(1024, 16383);
CREATE OR REPLACE FUNCTION take_registration_turn(of_csid integer) RETURNS void LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, pg_temp AS $$
BEGIN
    PERFORM FROM public.registration_turn WHERE turn = of_csid & 16383 FOR UPDATE;
END
$$;

RESET ROLE;

-- For wrk: the requests of clients in step, in turn, each connection one every INTERVAL milliseconds (0: as fast as it is answered).
--   wrk -s polls.lua URL -- INTERVAL CONNECTIONS (keep|close) PATH...
-- A connection's first request comes at some moment of the interval, so that the load is even. With `close` the server closes after
-- each answer, and the next connection is opened at once, an interval before its request.
local requests, turn, begun = {}, 0, 0

function init(args)
  local interval, connections = tonumber(args[1]), tonumber(args[2])
  local headers = { ["User-Agent"] = "brackenfen-sync/0.0.3", ["Authorization"] = "Bearer " .. string.rep("t", 40) }
  if args[3] == "close" then headers["Connection"] = "close" end
  for index = 4, #args do table.insert(requests, wrk.format("GET", args[index], headers)) end
  if interval > 0 then
    math.randomseed(1)
    delay = function()  -- wrk looks for a function of this name once, after init
      begun = begun + 1
      return begun <= connections and math.random(0, interval) or interval
    end
  end
end

function request()
  turn = turn % #requests + 1
  return requests[turn]
end
